#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "allocation/channel_job.hpp"
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
/// A channel is rendered in one piece, or, where there are more processors than channels, in as
/// few as these need, each with context around it. All that a sample depends on lies inside the
/// context, and the context begins on a multiple of the hop, so pieces abut without a crossfade and
/// no bit depends on how many there are.
///
/// `channels`: jobs of one shape, each with its own progress, which is called with counts in
/// 0 .. 6 * stems that never fall, one call at a time but on any thread: as often as a render in
/// intervals of C14_INTERVAL_SECONDS would report each step, if the span has
/// C14_INTERVAL_MIN_SECONDS or more, and spread evenly over the work.
///
/// Errors: those of one render; a signal shorter than C14_FFT_SIZE is a ValueError. The failure of
/// the lowest channel and piece is the one thrown; pieces not yet begun are dropped.
void render_channel_intervals(const std::vector<ChannelJob>& channels, const Machine& machine,
                              const StopToken& stop, const StoreInterval& store);

/// The spectrum frames that such a render of a span goes through, context included, of all
/// channels.
std::size_t frames_to_render(const SampleSpan& span, std::size_t samples, std::size_t stems,
                             std::size_t channels, const Machine& machine);

}  // namespace verdel::internal
