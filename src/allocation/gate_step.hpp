#pragma once

#include "signal/instruction_sets.hpp"

namespace verdel::internal {

/// The smooth step between two edges of the tail gate, in single precision and with plain
/// comparisons, so that a loop over cells becomes vectors.
template <const double& kLow, const double& kHigh>
VERDEL_INLINE float gate_step(float value) {
  constexpr float kScale = static_cast<float>(1.0 / (kHigh - kLow));
  float t = (value - static_cast<float>(kLow)) * kScale;
  t = t > 0.0F ? t : 0.0F;
  t = t < 1.0F ? t : 1.0F;
  return (t * t) * (3.0F - 2.0F * t);
}

}  // namespace verdel::internal
