#include "allocation/interval_rendering.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <numeric>
#include <variant>
#include <vector>

#include "allocation/worker_budgets.hpp"
#include "signal/sequences.hpp"
#include "support/ordered_prefetch.hpp"
#include "support/scratch_pool.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kBefore = C14_CONTEXT_BEFORE_HOPS * C14_HOP;
constexpr std::size_t kAfter = C14_CONTEXT_AFTER_HOPS * C14_HOP;

/// The intervals of a channel's span in order, and the size of one render.
struct IntervalPlan {
  std::vector<SampleSpan> intervals;
  std::size_t longest = 0;        ///< samples of the longest interval
  std::size_t longest_slice = 0;  ///< the same with its context rounded out to whole hops
  bool is_split() const { return intervals.size() > 1; }
};

/// Renders at once, of any channel, and the threads of each.
struct RenderWorkers {
  std::size_t renders, inner;
  std::size_t scoring() const { return std::min(inner, RenderScratch::kMostScoringSpectra); }
};

/// Consecutive intervals that cover the span, their lengths one sample apart at most.
std::vector<SampleSpan> cut_span(std::size_t start, std::size_t stop, int sr) {
  const double seconds = std::nearbyint(C14_INTERVAL_SECONDS * sr);
  const auto length = static_cast<double>(stop - start);
  const auto count = std::max<std::size_t>(
      2, static_cast<std::size_t>(std::ceil(length / std::max(1.0, seconds))));
  const auto bounds =
      linspace_floor(static_cast<std::int64_t>(start), static_cast<std::int64_t>(stop), count + 1);
  std::vector<SampleSpan> intervals(count);
  for (std::size_t i = 0; i < count; ++i) {
    intervals[i] = {static_cast<std::size_t>(bounds[i]), static_cast<std::size_t>(bounds[i + 1])};
  }
  return intervals;
}

/// The channel's one count out of those of its intervals: their mean.
class IntervalProgress {
 public:
  IntervalProgress(const RenderProgress& progress, std::size_t intervals, std::size_t units)
      : progress_(progress), completed_(intervals, 0), units_(units) {}

  /// The callback of one interval; empty if nobody listens.
  RenderProgress of_interval(std::size_t index) {
    if (!progress_) return {};
    return [this, index](std::size_t done, std::size_t) { update(index, done); };
  }
  void finish() {
    if (progress_) progress_(units_, units_);
  }

 private:
  void update(std::size_t index, std::size_t done) {
    // The caller's callback runs under the lock, so that its counts come one at a time and never
    // fall; it must not come back here.
    const std::lock_guard lock(progress_lock_);
    completed_[index] = done;
    const std::size_t sum = std::accumulate(completed_.begin(), completed_.end(), std::size_t{0});
    progress_(std::min(sum / completed_.size(), units_), units_);
  }

  const RenderProgress& progress_;
  std::vector<std::size_t> completed_;
  std::size_t units_;
  std::mutex progress_lock_;
};

/// Samples wanted; a span that is none is refused when it is to be rendered.
std::size_t span_length(const ChannelJob& job) {
  return job.stop - std::min(job.start, job.stop);
}

IntervalPlan plan_intervals(const ChannelJob& job) {
  const std::size_t span = span_length(job);
  const double shortest_split = std::nearbyint(C14_INTERVAL_MIN_SECONDS * job.sr);
  const bool split = static_cast<double>(span) >= shortest_split;
  IntervalPlan plan;
  plan.intervals = split ? cut_span(job.start, job.stop, job.sr)
                         : std::vector<SampleSpan>{{job.start, job.stop}};
  plan.longest = split ? plan.intervals.front().length() + 1 : span;  // they differ by one at most
  plan.longest_slice = std::min(job.mix.size(), plan.longest + kBefore + kAfter + 2 * C14_HOP);
  return plan;
}

/// Renders that the machine carries beside the audio of all channels.
std::size_t renders_that_fit(const std::vector<ChannelJob>& channels, const IntervalPlan& plan,
                             const Machine& machine) {
  const ChannelJob& shape = channels.front();
  const std::size_t stems = shape.taps.size();
  const std::uint64_t room =
      (stems * plan.longest + (stems + 1) * plan.longest_slice) * sizeof(double);
  return render_worker_count(
      persistent_bytes(std::max(shape.mix.size(), shape.source_samples), stems, channels.size()),
      RenderScratch::file_bytes(stems, plan.longest_slice),
      RenderScratch::memory_bytes(plan.longest_slice, RenderScratch::kMostScoringSpectra) + room,
      machine);
}

/// Renders side by side use the processors better than threads inside one.
RenderWorkers plan_workers(const std::vector<ChannelJob>& channels, const IntervalPlan& plan,
                           const Machine& machine) {
  const ChannelJob& job = channels.front();
  const std::size_t active = std::max<std::size_t>(1, job.active_channels);
  const std::size_t at_least =
      active * _c14_time_worker_count(span_length(job), job.sr, job.taps.size(), active, machine);
  const std::size_t renders =
      std::min(channels.size() * plan.intervals.size(),
               std::max(at_least, renders_that_fit(channels, plan, machine)));
  const std::size_t share = plan.is_split()
                                ? std::min<std::size_t>(2, machine.processors() / renders)
                                : _c14_inner_worker_count(renders, machine);
  return {renders, std::clamp<std::size_t>(share, 1, std::max<std::size_t>(1, job.workers))};
}

/// Renders one interval: `span`, from the slice of the signals that is its context.
void _render_transient_release_tail_channel_interval(const ChannelJob& job, const SampleSpan& span,
                                                     const Machine& machine, RenderScratch& scratch,
                                                     RowsView<double> room,
                                                     RowsView<double> rendered,
                                                     const StopToken& stop) {
  const std::size_t samples = job.mix.size();
  const SampleSpan slice = with_context(span, samples);
  ChannelJob part = job;
  part.start = span.first - slice.first;
  part.stop = span.stop - slice.first;
  part.mix = job.mix.subspan(slice.first, slice.length());
  part.gain = job.gain.subspan(slice.first, slice.length());
  for (auto& tap : part.taps) tap = tap.subspan(slice.first, slice.length());
  _render_transient_release_tail_channel_full(part, machine, scratch,
                                              room.column_range(0, slice.length()), rendered, stop);
}

/// The intervals of all channels, channel after channel, as one sequence of renders.
class IntervalSequence {
 public:
  IntervalSequence(const std::vector<ChannelJob>& channels, const Machine& machine,
                   const StopToken& stop)
      : channels_(channels),
        machine_(machine),
        stop_(stop),
        plan_(plan_intervals(channels.front())),
        workers_(plan_workers(channels, plan_, machine)),
        scratches_([this] {
          return std::make_unique<RenderScratch>(machine_, stems(), plan_.longest_slice,
                                                 workers_.scoring());
        }),
        rooms_([this] { return std::make_unique<Room>(stems(), plan_); }) {
    const std::size_t units = stems() * C14_STEPS_PER_STEM;
    for (const ChannelJob& job : channels) {
      counts_.emplace_back(job.progress, plan_.intervals.size(), units);
    }
  }

  void run(const StoreInterval& store);

 private:
  /// What a render reads, and what it gives.
  struct Room {
    AudioArray models, stems;

    Room(std::size_t count, const IntervalPlan& plan)
        : models(AudioArray::uninitialised(count + 1, plan.longest_slice)),
          stems(AudioArray::uninitialised(count, plan.longest)) {}
  };

  std::size_t stems() const { return channels_.front().taps.size(); }
  void render_interval(std::size_t channel, std::size_t interval, const StoreInterval& store);

  const std::vector<ChannelJob>& channels_;
  const Machine& machine_;
  const StopToken& stop_;
  IntervalPlan plan_;
  RenderWorkers workers_;
  ScratchPool<RenderScratch> scratches_;
  ScratchPool<Room> rooms_;
  std::deque<IntervalProgress> counts_;  // by channel
};

void IntervalSequence::render_interval(std::size_t channel, std::size_t interval,
                                       const StoreInterval& store) {
  ChannelJob job = channels_[channel];
  job.workers = workers_.inner;
  if (plan_.is_split()) job.progress = counts_[channel].of_interval(interval);
  const SampleSpan& span = plan_.intervals[interval];
  const auto room = rooms_.lease();
  const auto stems = (*room).stems.view().column_range(0, span.length());
  {
    const auto scratch = scratches_.lease();
    _render_transient_release_tail_channel_interval(job, span, machine_, *scratch,
                                                    (*room).models.view(), stems, stop_);
  }
  store(channel, span.first, stems);
}

void IntervalSequence::run(const StoreInterval& store) {
  const std::size_t intervals = plan_.intervals.size();
  auto rendered = _ordered_prefetch(
      [&](std::size_t index) {
        render_interval(index / intervals, index % intervals, store);
        return std::monostate{};
      },
      channels_.size() * intervals, workers_.renders, "verdel-c14-time", 1);
  for (std::size_t channel = 0; channel < channels_.size(); ++channel) {
    for (std::size_t interval = 0; interval < intervals; ++interval) rendered.next();
    if (plan_.is_split()) counts_[channel].finish();
  }
}

}  // namespace

SampleSpan with_context(const SampleSpan& span, std::size_t samples) {
  const std::size_t before = span.first - std::min(span.first, kBefore);
  const std::size_t after = span.stop + kAfter;
  return {before / C14_HOP * C14_HOP, std::min(samples, (after + C14_HOP - 1) / C14_HOP * C14_HOP)};
}

void render_channel_intervals(const std::vector<ChannelJob>& channels, const Machine& machine,
                              const StopToken& stop, const StoreInterval& store) {
  for (const ChannelJob& job : channels) check_channel_job(job, C14_FFT_SIZE);
  IntervalSequence(channels, machine, stop).run(store);
}

}  // namespace verdel::internal
