#pragma once

#include <string>

#include "signal/arrays.hpp"

namespace verdel {

/// The taps added in map order. Every tap has the given shape.
AudioArray sum_of(const StemMap& taps, std::size_t channels, std::size_t frames);

/// whole - part, in the storage of `part`. Shapes are equal.
AudioArray difference_from(AudioView whole, AudioArray part);

/// How far the RMS level of `part` lies from `whole_rms` (dB), as "-13.2 dB".
std::string level_against(AudioView part, double whole_rms);

}  // namespace verdel
