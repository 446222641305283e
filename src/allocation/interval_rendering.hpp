#pragma once

#include <cstddef>
#include <vector>

#include "allocation/channel_render.hpp"
#include "allocation/scratch_pool.hpp"
#include "signal/arrays.hpp"
#include "support/machine.hpp"
#include "support/stop_token.hpp"

namespace verdel {

/// The intervals of a span in order, and how many at once on how many threads each.
struct IntervalPlan {
  struct Interval {
    std::size_t first, stop;
  };
  std::vector<Interval> intervals;
  std::size_t time_workers, inner_workers;
};

/// The allocator's front door: shares the residual of one channel among its stems and returns them
/// over the job's span, [stems][stop - start].
///
/// A span of C14_INTERVAL_MIN_SECONDS or more is cut into intervals of about C14_INTERVAL_SECONDS,
/// each rendered by itself with context around it, several at once as the machine allows: temporary
/// files and working memory then depend on the interval, not on the song. All that a sample depends
/// on lies inside the context, and the context begins on a multiple of the hop, so intervals abut
/// without a crossfade.
///
/// job.progress is called with counts in 0 .. 6 * stems that never fall, one call at a time but on
/// any thread. Errors: those of one render; a signal shorter than C14_FFT_SIZE is a ValueError.
Array2D<double> render_transient_release_tail_channel(const ChannelJob& job, const Machine& machine,
                                                      const StopToken& stop = {});

/// The same for several channels of one song: they share scratch files and buffers, whose pages are
/// touched once for all.
class ChannelRenderer {
 public:
  /// `shape`: any of the channels. How the machine is used is settled here, before the scratch
  /// files of the first channel take space from the second.
  ChannelRenderer(const ChannelJob& shape, const Machine& machine);

  /// Threads: several channels may be rendered at once.
  Array2D<double> render(const ChannelJob& job, const StopToken& stop = {});

 private:
  Array2D<double> render_intervals(const ChannelJob& job, const StopToken& stop);

  Machine machine_;
  IntervalPlan plan_;
  ScratchPool<RenderScratch> scratches_;
};

/// One interval: the job's span, with context cut from around it. `scratch`, if given, has room for
/// both.
Array2D<double> _render_transient_release_tail_channel_interval(const ChannelJob& job,
                                                                const Machine& machine,
                                                                const StopToken& stop = {},
                                                                RenderScratch* scratch = nullptr);

}  // namespace verdel
