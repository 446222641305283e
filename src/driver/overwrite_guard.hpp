#pragma once

#include "driver/options.hpp"

namespace verdel::internal {

/// Stops a render that would write over what it reads: a stem or null residual that is one of the
/// inputs under whatever name, a null residual that would replace a stem, a folder in the place of
/// a file. Looks at names and file system entries only. The paths in `options` are complete; what
/// cannot be planned passes in silence, since planning itself says why in its turn.
/// Throws ValueError.
void refuse_overwriting(const Options& options);

}  // namespace verdel::internal
