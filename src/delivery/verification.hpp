#pragma once

#include <string>
#include <vector>

#include "signal/arrays.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// A stem that stands on the disk.
struct WrittenStem {
  std::string name, path;
};

/// What the files leave of the mix: reads them back one after the other, adds them up in their
/// order in double precision, and returns the mix minus their sum, [channels][samples].
///
/// Errors: RuntimeError "written stem verification failed for {name}" for a file whose rate,
/// channels or length are not those of the mix; OSError or RuntimeError with the file's name for
/// one that cannot be read whole; Cancelled by `stop`.
AudioArray written_residual(const std::vector<WrittenStem>& stems, AudioView mix, int sr,
                            const StopToken& stop = {});

}  // namespace verdel::internal
