#pragma once

#include <cstddef>
#include <optional>

#include "signal/arrays.hpp"

namespace verdel::internal {

/// Levels in dB relative to 1.0; -999.0 stands for silence and for an empty array.
struct Levels {
  double peak = 0.0, rms = 0.0;
};

/// Peak and RMS over all elements, summed in double in one fixed order. An element that is not a
/// number makes both not a number.
Levels levels(AudioView audio);
Levels levels(RowsView<const float> audio);

/// A sample that is infinite or not a number.
struct BadSample {
  std::size_t channel = 0, frame = 0;
};

/// The first such sample in time, at one time the one of the lowest channel; nothing if all samples
/// are finite.
std::optional<BadSample> first_non_finite(AudioView audio);

}  // namespace verdel::internal
