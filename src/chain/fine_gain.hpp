#pragma once

#include <cstddef>
#include <vector>

#include "chain/chain_job.hpp"

namespace verdel::internal {

/// A gain over that of the engine, the same in every channel and tap: one for all frequencies in
/// steps of some milliseconds, or one per octave in longer steps.
struct FineGain {
  bool in_bands = false;
  std::size_t frame = 0, hop = 0;  ///< samples
  double stiffness = 0.0;          ///< what a step from frame to frame was made to cost
  std::vector<double> centres;     ///< Hz, one per band; one entry where there is one gain
  Array2D<double> factors;         ///< [frames][bands]; frame k begins at sample k * hop - frame
};

/// Finds the gain that brings `heard` under the engine's gain nearest to the mix. Half of the bins
/// finds it, the other half judges how stiff it must be. Each bin counts by the inverse of what is
/// left in it.
FineGain find_fine_gain(AudioView heard, bool in_bands, const ChainJob& job);

/// Plays audio through the gain, [channels][frames].
AudioArray play(AudioView audio, const FineGain& gain, const ChainJob& job);

}  // namespace verdel::internal
