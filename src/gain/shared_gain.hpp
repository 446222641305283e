#pragma once

#include <optional>

#include "signal/arrays.hpp"
#include "signal/profile.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// What stands in for the master chain: one gain curve per channel, the same for every tap.
struct SharedGainModel {
  StemMap models;        ///< tap times gain, in the order of the taps, [channels][kept] each
  AudioArray gain;       ///< plain factors within 0.02 .. 50, [channels][samples]
  AudioArray model_sum;  ///< the sum of the models in their order, [channels][samples]
};

/// Fits the sum of the taps to the mix by a least-squares gain, measured over gain_window_ms and
/// averaged over gain_smooth_ms (0 or below: not averaged), and applies it to every tap.
///
/// `kept`: the samples of which the models are wanted; without it, all. Gain and sum are whole.
/// Shapes: mix [channels][samples], every tap the same. Errors: ValueError for an empty mix, no
/// taps, or a tap of another shape or with values that are not finite; FloatingPointError for a mix
/// or a model that is not finite; Cancelled by `stop`.
SharedGainModel shared_single_band_model(AudioView mix, const StemMap& taps, int sr,
                                         double gain_window_ms = Profile{}.gain_window_ms,
                                         double gain_smooth_ms = Profile{}.gain_smooth_ms,
                                         const StopToken& stop = {},
                                         std::optional<SampleSpan> kept = {});

}  // namespace verdel::internal
