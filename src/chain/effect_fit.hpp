#pragma once

#include <optional>
#include <span>

#include "chain/chain_gain.hpp"
#include "chain/chain_job.hpp"
#include "chain/fir_player.hpp"

namespace verdel::internal {

/// What the return of an effect is sought in.
struct EffectSignals {
  HeardView source;  ///< one tap as it is heard without its effect
  HeardView rest;    ///< mix - gain * all that is heard, that tap included
  const GainCurve& gain;
  std::span<const SampleSpan> judged;  ///< the parts that count, in order
  const ChainFir* before = nullptr;    ///< the filter so far, which `rest` is under; null: none yet
};

struct EffectFit {
  ChainFir fir;                   ///< the tap's sound and its effect
  double cross_validation = 0.0;  ///< dB by which it beats a plain factor on unseen passages; 0
                                  ///< where a filter is bettered, which is not judged again
};

/// The filter of 1.2 s, channel by channel, that brings gain * (filter * source) nearest to what is
/// left, beyond the source itself: least squares with a prior that falls as rooms do, by conjugate
/// gradients behind a Toeplitz preconditioner (Chan & Ng 1996), which a gain that moves makes a
/// near one. Every third passage of 2 s judges a filter found on the others; only one that beats a
/// plain factor there by `least_validated` dB is worth the rest of the way, on all of them. Nothing
/// where it is not.
std::optional<EffectFit> fit_effect(const EffectSignals& signals, double least_validated,
                                    const ChainJob& job);

}  // namespace verdel::internal
