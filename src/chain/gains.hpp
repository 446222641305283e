#pragma once

#include <string>
#include <vector>

#include "chain/chain_job.hpp"
#include "chain/fine_gain.hpp"

namespace verdel::internal {

/// The gains that were found over the engine's own, in the order in which they are played.
struct GainsFinding {
  std::vector<FineGain> used;
  double left_before = 0.0;  ///< dB of the mix, under the engine's gain
  double left_after = 0.0;
};

/// What such a search would leave of the mix, in dB, of the taps' sum as heard, were the taps not
/// asked.
double left_behind_gains(const ChainJob& job, Heard sum);

/// Looks for a fine gain and for one in bands, keeps what takes a clear part off what is left and
/// is not voted down by the taps, and plays the taps through it.
GainsFinding find_gains(const ChainJob& job, StemMap& taps);

}  // namespace verdel::internal
