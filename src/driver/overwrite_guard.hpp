#pragma once

#include <string>
#include <vector>

#include "driver/options.hpp"
#include "inputs/input_planning.hpp"

namespace verdel::internal {

/// Stops a render that would write over what it reads: a stem or null residual that is one of the
/// inputs under whatever name, a null residual that would replace a stem, a folder in the place of
/// a file, two links to one file. Looks at names and file system entries only. Then tries whether
/// the output place can be used (see require_usable_place), so that nobody waits for a render whose
/// stems have nowhere to go. The paths in `options` are complete; what cannot be planned or is not
/// there passes in silence, since planning and loading say why in their turn.
/// Throws ValueError and OSError.
void refuse_overwriting(const Options& options);

/// What is to be written, and where.
struct OutputFiles {
  std::string folder;
  std::string option;              ///< which names the folder, with its dashes
  std::vector<std::string> names;  ///< as messages call them
  std::vector<std::string> paths;  ///< one for each name
};

/// The first half of that for any files: what is in the way of them, or one of the inputs.
void refuse_overwriting(const OutputFiles& outputs, const std::vector<StemInput>& inputs);

}  // namespace verdel::internal
