#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "chain/fine_gain.hpp"

namespace verdel::internal {

/// A gain for all frequencies as a curve over time, its factors under overlapping Hann windows: as
/// it is played, or over the engine's alone.
class FactorCurve {
 public:
  FactorCurve(const FineGain& gain, bool as_played);
  /// The factors of the samples from `first` on.
  void read(std::size_t channel, std::size_t first, std::span<double> into) const;

 private:
  const FineGain& gain_;
  bool with_engine_;
  std::vector<double> window_;
};

/// Plays audio that is only measured through the gain, into an array of its shape, which may be
/// that of the audio itself.
void play(HeardView audio, const FineGain& gain, const ChainJob& job, Heard& result);

/// Plays the taps through the gain, into themselves.
void play(const FineGain& gain, const ChainJob& job, StemMap& taps);

}  // namespace verdel::internal
