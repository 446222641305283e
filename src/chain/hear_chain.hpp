#pragma once

#include "chain/curve.hpp"
#include "chain/gains.hpp"
#include "chain/tap_filters.hpp"

namespace verdel::internal {

/// What the master chain did to every tap, as far as it was found.
struct ChainFinding {
  CurveFinding curve;
  TapFiltersFinding tap_filters;
  GainsFinding gains;
  bool lined_up = false;  ///< whether the taps were moved as curve.lags tell

  bool changes_taps() const {
    return lined_up || curve.used || !tap_filters.filters.empty() || !gains.used.empty();
  }
};

/// What is looked for beside the curve.
struct ChainWishes {
  bool tap_filters = true;
  bool gains = true;
};

/// Finds the master's EQ and, if they are wanted, what single taps went through on their own and
/// gains finer than the engine's, and plays the taps through what was found; where nothing holds
/// they stay as they were. Every tap has the mix's shape. The method: penalised least squares of
/// the mix on the taps' sum through a filter and a gain in turn, each judged on passages that it
/// has not seen and by a vote of the taps.
///
/// Deterministic, whatever the pool. Errors: Cancelled; those of memory.
ChainFinding hear_chain(const ChainJob& job, StemMap& taps, const ChainWishes& wishes = {});

}  // namespace verdel::internal
