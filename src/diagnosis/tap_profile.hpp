#pragma once

#include <complex>
#include <cstddef>
#include <optional>
#include <vector>

#include "diagnosis/tap_fits.hpp"

namespace verdel::internal {

/// How a tap stands in the mix against the others, in one band over the whole song: 1 is as they
/// do.
struct BandRatio {
  double hz = 0.0;
  std::complex<double> ratio;
  double deviation = 0.0;  ///< standard, of each part
};

/// The same for one segment of the song, over all bands.
struct SegmentLevel {
  std::size_t segment = 0;
  double db = 0.0;
  double deviation_db = 0.0;
};

/// What the mix does with one tap that it does not do with the others.
struct TapProfile {
  bool known = false;      ///< it sounds, and so does another beside it
  bool inverted = false;   ///< clearly turned over
  double likeness = 0.0;   ///< 0 to 1: how well one sign, one delay and no more explains the phases
  double strength = 0.0;   ///< how much of it the mix holds; 1: as much as of the others
  double deviation = 0.0;  ///< standard, of the strength
  double delay = 0.0;      ///< samples that the tap is early; within kMostDelay
  double delay_deviation = 0.0;
  std::vector<BandRatio> bands;
  std::vector<SegmentLevel> levels;
};

/// As far as phases tell a delay from others, in samples.
inline constexpr double kMostDelay = 4.0;

/// Profiles of all taps by the fits of some ears together. Taps that stand apart (turned over,
/// through a filter of their own, hardly there) are found first and are nobody's measure.
std::vector<TapProfile> tap_profiles(const SpectralSums& sums,
                                     const std::vector<const TapFits*>& ears);

}  // namespace verdel::internal
