#pragma once

#include "signal/arrays.hpp"
#include "signal/profile.hpp"
#include "signal/song_storage.hpp"
#include "support/stop_token.hpp"

/// What stands in for the master chain: one gain curve per channel, the same for every tap. A tap
/// times the gain is its stem's model.
namespace verdel::internal {

/// The taps added up in their order, [channels][samples] like the mix. A sum that is not finite
/// tells of a tap that is not.
///
/// Errors: ValueError for an empty mix, no taps, or a tap of another shape; Cancelled by `stop`.
AudioArray sum_of_taps(AudioView mix, const StemMap& taps, const StopToken& stop = {},
                       const SongStorage& storage = {});

/// Fits the sum of the taps to the mix by a least-squares gain, measured over gain_window_ms and
/// averaged over gain_smooth_ms (0 or below: not averaged). Returns plain factors within
/// 0.02 .. 50, [channels][samples], in the storage of the sum.
///
/// Errors: ValueError for a sum of another shape than the mix or with values that are not finite;
/// FloatingPointError for a mix or a gain that is not finite; Cancelled by `stop`.
AudioArray shared_single_band_gain(AudioView mix, AudioArray tap_sum, int sr,
                                   double gain_window_ms = Profile{}.gain_window_ms,
                                   double gain_smooth_ms = Profile{}.gain_smooth_ms,
                                   const StopToken& stop = {});

/// RMS, in dB, of what the models leave of the mix: of the mix minus the sum of every tap times the
/// gain. All of one shape.
double level_behind_models(AudioView mix, const StemMap& taps, AudioView gain,
                           const StopToken& stop = {});

}  // namespace verdel::internal
