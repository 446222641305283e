#pragma once

#include <algorithm>

#include "signal/arrays.hpp"

namespace verdel::internal::testing {

/// Audio in single precision, as taps and stems stand.
inline StemArray rounded(AudioView audio) {
  auto result = StemArray::uninitialised(audio.rows(), audio.columns());
  for (std::size_t row = 0; row < audio.rows(); ++row) {
    std::ranges::transform(audio.row(row), result.row(row).begin(),
                           [](double sample) { return static_cast<float>(sample); });
  }
  return result;
}

/// Taps and stems in double precision.
inline AudioArray widened(StemView audio) {
  auto result = AudioArray::uninitialised(audio.rows(), audio.columns());
  for (std::size_t row = 0; row < audio.rows(); ++row) {
    std::ranges::copy(audio.row(row), result.row(row).begin());
  }
  return result;
}

}  // namespace verdel::internal::testing
