#pragma once

#include <cstddef>

#include "allocation/channel_render.hpp"
#include "signal/arrays.hpp"
#include "support/machine.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// What the shared gain explains of the mix, and what it leaves: of the whole source, or of the
/// part that a render looks at (see with_context).
struct Model {
  StemMap sources;        ///< tap times gain, [channels][part], in stem order
  AudioArray residual;    ///< mix minus the sum of the sources, [channels][part]
  std::size_t first = 0;  ///< where in the source the part begins
  /// Samples of the source, whose mix and taps may stand in memory beside a part; 0: of the model.
  std::size_t source_samples = 0;
};

/// The model of a part, from its sources and the residual of the whole source.
Model model_of_part(StemMap sources, AudioArray residual, const SampleSpan& part);

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
/// gives up the model. Returns the stems of the range, [channels][range], in stem order; if the
/// range is the whole source they take the storage of the model's sources interval by interval.
///
/// The failure of the lowest channel is the one thrown; what has not yet begun is dropped, a render
/// that runs finishes first.
StemMap render_channels(Model model, const ChannelsJob& job, const Machine& machine,
                        const StopToken& stop = {});

}  // namespace verdel::internal
