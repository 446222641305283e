#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "allocation/channel_render.hpp"
#include "signal/arrays.hpp"
#include "support/machine.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// The samples that a render of the span looks at: the span itself and its context, as far as the
/// signal reaches, from a multiple of the hop on.
SampleSpan with_context(const SampleSpan& span, std::size_t samples);

/// Called with a channel's index, a position in the source and the stems from there,
/// [stems][samples]: on the threads that render, for disjoint ranges, several at once.
using StoreInterval =
    std::function<void(std::size_t channel, std::size_t first, RowsView<const double> stems)>;

/// The allocator's front door: shares the residual of each channel among its stems over the jobs'
/// span.
///
/// A span of C14_INTERVAL_MIN_SECONDS or more is cut into intervals of about C14_INTERVAL_SECONDS,
/// each rendered by itself with context around it, several at once as the machine allows: temporary
/// files and working memory then depend on the interval, not on the song. All that a sample depends
/// on lies inside the context, and the context begins on a multiple of the hop, so intervals abut
/// without a crossfade. The intervals of all channels form one sequence: threads, scratch files and
/// buffers pass from one channel to the next.
///
/// `channels`: jobs of one shape, each with its own progress, which is called with counts in
/// 0 .. 6 * stems that never fall, one call at a time but on any thread.
///
/// Errors: those of one render; a signal shorter than C14_FFT_SIZE is a ValueError.
/// Threads: as many renders at once as have a processor and fit the machine. The failure of the
/// lowest channel and interval is the one thrown; intervals not yet begun are dropped, one that
/// runs finishes first.
void render_channel_intervals(const std::vector<ChannelJob>& channels, const Machine& machine,
                              const StopToken& stop, const StoreInterval& store);

}  // namespace verdel::internal
