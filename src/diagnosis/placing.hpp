#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "diagnosis/finding.hpp"
#include "diagnosis/spectral_sums.hpp"

namespace verdel::internal {

/// A lag that changes.
struct Drift {
  double samples_per_second = 0.0;       ///< 0 where it jumps
  double jump_at = 0.0;                  ///< s
  std::ptrdiff_t before = 0, after = 0;  ///< samples, at the first and the last place heard
};

/// Where a tap lies against the mix.
struct Place {
  std::ptrdiff_t late = 0;  ///< samples by which the tap is late; negative: early
  std::optional<Drift> drift;
  bool found = true;  ///< false: nothing in the mix goes with it, wherever it is looked for
};

/// How far from the mix a tap is looked for.
inline constexpr double kWidestLagSeconds = 4.0;

/// What the search has to know of the audio; all of one shape.
struct PlacingJob {
  AudioView mix;
  StemViews taps;
  int sr = 0;
  const std::vector<bool>& left_out;  ///< taps that are not looked for
  ThreadPool* pool = nullptr;
  StopToken stop = {};
};

/// Where every tap lies, and the sums of all taps when they are moved there. A tap that goes with
/// the mix where it is stays, whatever a plain correlation says; the others are looked for by the
/// phase of a cross-spectrum, by plain correlation, farther away, and piece by piece.
struct Placing {
  std::vector<Place> places;
  SpectralSums sums;
};
Placing place_taps(const PlacingJob& job);

}  // namespace verdel::internal
