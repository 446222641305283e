#pragma once

#include <cstddef>
#include <vector>

#include "chain/chain_gain.hpp"
#include "chain/chain_job.hpp"

namespace verdel::internal {

/// What a fine gain may be: one for all frequencies or one per octave; the same in every channel or
/// each its own.
struct GainForm {
  bool in_bands = false, apart = false;
};

/// A gain over that of the engine, the same in every tap: one for all frequencies in steps of some
/// milliseconds, or one per octave in longer steps; the same in every channel, or each its own.
struct FineGain {
  bool in_bands = false;
  std::size_t frame = 0, hop = 0;  ///< samples
  double stiffness = 0.0;          ///< what a step from frame to frame was made to cost
  std::vector<double> centres;     ///< Hz, one per band; one entry where there is one gain
  /// One entry for all channels, or one per channel: [frames][bands]. Frame k begins at sample
  /// k * hop - frame.
  std::vector<Array2D<double>> factors;
  /// Where it is played along, the engine's own gain in the middle of each frame,
  /// [channels][frames].
  Array2D<double> engine;

  bool channels_apart() const { return factors.size() > 1; }
  const Array2D<double>& of_channel(std::size_t channel) const {
    return factors[channels_apart() ? channel : 0];
  }
};

/// What a gain is sought for: the taps' sum as heard so far, and the engine's gain over it.
struct GainTarget {
  HeardView heard;
  const GainCurve& engine;
};

/// Finds the gain that brings what is heard under the engine's gain nearest to the mix. Half of the
/// bins finds it, the other half judges how stiff it must be. Each bin counts by the inverse of
/// what is left in it. A gain apart needs two channels.
FineGain find_fine_gain(const GainTarget& target, GainForm form, const ChainJob& job);

/// How many dB such a gain would take off what is left if the engine kept its gain, from samples of
/// the song: half a minute of it, evenly spread. The engine measures its gain anew, so this is no
/// more than a guide: near for bands (a tenth too little or much too much), and for comparing
/// forms.
double expected_fall(const GainTarget& target, GainForm form, const ChainJob& job);

/// Has the engine's gain over what is heard played along with `gain`. The engine, which measures
/// its own over what is played, then finds next to nothing to do and smears nothing.
void play_engine_along(const GainTarget& target, FineGain& gain);

}  // namespace verdel::internal
