#pragma once

#include <cstddef>

#include "signal/arrays.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// First sample of the `length` samples whose smoothed energy is highest, the first such place if
/// several are equal. The energy is the square of the mono mix, averaged over `smoothing` samples
/// with the mix reflected at its ends.
///
/// Units: samples; 0 < length < the mix's frames. Memory: `length` values. Errors: none but
/// Cancelled.
std::size_t loudest_stretch(AudioView mix, std::size_t length, std::size_t smoothing,
                            const StopToken& stop = {});

}  // namespace verdel::internal
