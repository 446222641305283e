#pragma once

#include "chain/fine_gain.hpp"

namespace verdel::internal {

/// What the taps are asked about.
struct GainQuestion {
  const FineGain& gain;      ///< of which what is over the engine's counts
  const FineGain* before;    ///< for all frequencies, which the taps go through first, or null
  const GainCurve& engine;   ///< the engine's
  const GainTarget& result;  ///< the taps' sum as it would be, whatever was played to get there
};

/// The share of what a gain changes in the taps that lies on those which would rather not have it.
double share_against(const GainQuestion& question, const StemMap& taps, const ChainJob& job);

}  // namespace verdel::internal
