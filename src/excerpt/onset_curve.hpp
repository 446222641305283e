#pragma once

#include <cstddef>
#include <vector>

#include "signal/arrays.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// Samples from one value of the onset curve to the next.
inline constexpr std::size_t kOnsetHop = 128;

/// The average of the channels at one sample.
inline double mono_at(AudioView mix, std::size_t sample) {
  double sum = 0.0;
  for (std::size_t c = 0; c < mix.rows(); ++c) sum += mix.row(c)[sample];
  return sum / static_cast<double>(mix.rows());
}

/// Spectral flux of the mono mix: value f sums, over the bins of a 2048-point Hann-windowed
/// spectrum, by how much frame f + 1 rose above frame f (Bello et al. 2005). Only whole frames
/// count, so the curve has (frames - 2048) / kOnsetHop values and is empty below two frames; it is
/// nowhere negative. What is not finite in the mix is not finite in the curve.
///
/// Units: magnitudes, not normalised. Errors: none but Cancelled.
std::vector<double> onset_curve(AudioView mix, const StopToken& stop = {});

}  // namespace verdel::internal
