#pragma once

#include <complex>
#include <cstddef>
#include <vector>

#include "diagnosis/spectral_sums.hpp"

namespace verdel::internal {

/// What the mix holds of a tap, in one band of one segment: the factor by which the tap goes into
/// it, fitted with all other taps at once, and how sure that is.
struct TapFactor {
  std::complex<double> factor;
  double variance = 0.0;  ///< of each of its parts
  double power = 0.0;     ///< of the tap
  bool known = false;     ///< the tap sounds there
};

/// What a fit of all taps leaves of the mix.
struct Rest {
  double mix = 0.0, left = 0.0;  ///< power
};

/// The mix as a sum of its taps, each through a factor of its own, in every band of every segment.
class TapFits {
 public:
  /// `left_out` are taps that others explain already, with which no fit has an answer.
  TapFits(const SpectralSums& sums, Ear ear, const std::vector<bool>& left_out);

  const TapFactor& factor(std::size_t tap, std::size_t segment, std::size_t band) const {
    return factors_[(tap * segments_ + segment) * bands_ + band];
  }
  const Rest& rest(std::size_t segment, std::size_t band) const {
    return rests_[segment * bands_ + band];
  }
  std::size_t segments() const { return segments_; }
  std::size_t bands() const { return bands_; }

 private:
  void fit(const SpectralSums& sums, Ear ear, const std::vector<bool>& left_out,
           std::size_t segment, std::size_t band);

  std::size_t segments_, bands_;
  std::vector<TapFactor> factors_;
  std::vector<Rest> rests_;
};

}  // namespace verdel::internal
