#pragma once

#include <cstddef>

#include "allocation/channel_job.hpp"
#include "allocation/interval_rendering.hpp"
#include "signal/arrays.hpp"
#include "support/machine.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// What a render looks at, of the whole source or of a part of it (see with_context). A stem's
/// model is its tap times the gain, and what the models leave of the mix is to be shared out.
struct Model {
  StemViews taps;         ///< [channels][part], in stem order
  AudioArray gain;        ///< plain factors, [channels][part]
  AudioView mix;          ///< [channels][part]
  std::size_t first = 0;  ///< where in the source the part begins
};

/// The model of a part, from the whole source's taps, gain and mix. Taps and mix stay the caller's.
Model model_of_part(const StemMap& taps, AudioArray gain, AudioView mix, const SampleSpan& part);

/// How a model is to be rendered.
struct ChannelsJob {
  int sr = 0;                       ///< Hz
  std::size_t start = 0, stop = 0;  ///< the samples of the source to deliver, stop excluded
  /// Called with the finished steps of all channels and their number, one call at a time, from the
  /// renders' threads; the count never falls.
  RenderProgress progress = {};
  /// Called with each channel's own progress, on the threads that make it.
  RenderProgress watch = {};
};

/// The steps that a job's progress counts to.
std::size_t channel_steps(std::size_t channels, std::size_t stems);

/// Allocates the residual of all channels, as many intervals at a time as the machine carries, and
/// hands the stems of the range to `store`, at positions in the source.
///
/// The failure of the lowest channel is the one thrown; what has not yet begun is dropped, a render
/// that runs finishes first.
void render_channels(const Model& model, const ChannelsJob& job, const Machine& machine,
                     const StoreInterval& store, const StopToken& stop = {});

}  // namespace verdel::internal
