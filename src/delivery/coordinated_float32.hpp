#pragma once

#include <vector>

#include "signal/arrays.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// Stems as they go to the disk, in stem order, [channels][samples] each.
using DeliveredStems = std::vector<NamedStem<Array2D<float>>>;

/// Rounds the stems to 32-bit float so that their sum still is the mix: at every sample the
/// rounding errors of all stems together go to the one with the largest magnitude there (the
/// earliest among equals), and what is left is the rounding of that one value. With a
/// `null_threshold` above -140 dB, or where plain rounding already stays below it, the stems are
/// rounded and nothing else.
///
/// Shapes: mix [channels][samples], every stem the same; est is not written.
/// Errors: ValueError for more than 65536 stems; RuntimeError if the stems differ from the mix by
/// more than rounding explains, or hold a value that a float cannot; Cancelled by `stop`.
DeliveredStems _coordinated_float32_delivery(const StemViews& est, AudioView mix,
                                             double null_threshold, const StopToken& stop = {});

}  // namespace verdel::internal
