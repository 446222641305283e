#include "allocation/interval_rendering.hpp"

#include <algorithm>
#include <cmath>
#include <deque>
#include <memory>
#include <mutex>
#include <numeric>
#include <vector>

#include "allocation/scratch_pool.hpp"
#include "allocation/worker_budgets.hpp"
#include "support/ordered_prefetch.hpp"

namespace verdel {
namespace {

constexpr std::size_t kBefore = C14_CONTEXT_BEFORE_HOPS * C14_HOP;
constexpr std::size_t kAfter = C14_CONTEXT_AFTER_HOPS * C14_HOP;

/// The intervals of a span in order, and how many at once on how many threads each.
struct IntervalPlan {
  std::vector<SampleSpan> intervals;
  std::size_t time_workers, inner_workers;
};

/// Consecutive intervals that cover the span, their lengths one sample apart at most.
std::vector<SampleSpan> cut_span(std::size_t start, std::size_t stop, int sr) {
  const double seconds = std::nearbyint(C14_INTERVAL_SECONDS * sr);
  const auto length = static_cast<double>(stop - start);
  const auto count = std::max<std::size_t>(
      2, static_cast<std::size_t>(std::ceil(length / std::max(1.0, seconds))));
  const double step = length / static_cast<double>(count);
  const auto bound = [&](std::size_t i) {
    if (i == count) return stop;
    const double position = static_cast<double>(start) + static_cast<double>(i) * step;
    return static_cast<std::size_t>(std::floor(position));
  };
  std::vector<SampleSpan> intervals(count);
  for (std::size_t i = 0; i < count; ++i) intervals[i] = {bound(i), bound(i + 1)};
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

IntervalPlan plan_intervals(const ChannelJob& job, const Machine& machine) {
  // A span that is none is refused when it is to be rendered.
  const std::size_t span = job.stop - std::min(job.start, job.stop);
  const double shortest_split = std::nearbyint(C14_INTERVAL_MIN_SECONDS * job.sr);
  if (static_cast<double>(span) < shortest_split) return {{{job.start, job.stop}}, 1, job.workers};
  const std::size_t active = std::max<std::size_t>(1, job.active_channels);
  const std::size_t time_workers =
      _c14_time_worker_count(span, job.sr, job.source_models.size(), job.active_channels, machine);
  // Intervals side by side use the processors better than threads inside one.
  const std::size_t inner_workers = std::max<std::size_t>(
      1, std::min({std::size_t{2}, job.workers, machine.processors() / (active * time_workers)}));
  return {cut_span(job.start, job.stop, job.sr), time_workers, inner_workers};
}

std::size_t longest_interval(const IntervalPlan& plan) {
  const SampleSpan& first = plan.intervals.front();
  return first.stop - std::min(first.first, first.stop) + 1;  // lengths differ by one at most
}

/// Room for the longest interval, with its context rounded out to whole hops.
ScratchPool<RenderScratch> scratch_for(const ChannelJob& shape, const IntervalPlan& plan,
                                       const Machine& machine) {
  const std::size_t longest =
      std::min(shape.residual.size(), longest_interval(plan) + kBefore + kAfter + 2 * C14_HOP);
  const std::size_t spectra = std::min(plan.inner_workers, RenderScratch::kMostScoringSpectra);
  return ScratchPool<RenderScratch>(
      [machine, stems = shape.source_models.size(), longest, spectra] {
        return std::make_unique<RenderScratch>(machine, stems, longest, spectra);
      });
}

/// Room for the stems of the longest interval.
ScratchPool<AudioArray> results_for(const ChannelJob& shape, const IntervalPlan& plan) {
  return ScratchPool<AudioArray>(
      [stems = shape.source_models.size(), longest = longest_interval(plan)] {
        return std::make_unique<AudioArray>(AudioArray::uninitialised(stems, longest));
      });
}

/// Renders one interval: `span`, from the slice of the signals that is its context.
void _render_transient_release_tail_channel_interval(const ChannelJob& job, const SampleSpan& span,
                                                     const Machine& machine, RenderScratch& scratch,
                                                     RowsView<double> rendered,
                                                     const StopToken& stop) {
  const std::size_t samples = job.residual.size();
  const SampleSpan slice = with_context(span, samples);
  ChannelJob part = job;
  part.start = span.first - slice.first;
  part.stop = span.stop - slice.first;
  part.residual = job.residual.subspan(slice.first, slice.length());
  for (auto& source : part.source_models) source = source.subspan(slice.first, slice.length());
  _render_transient_release_tail_channel_full(part, machine, scratch, rendered, stop);
}

/// The intervals of all channels, channel after channel, as one sequence of renders.
class IntervalSequence {
 public:
  IntervalSequence(const std::vector<ChannelJob>& channels, const Machine& machine,
                   const StopToken& stop)
      : channels_(channels),
        machine_(machine),
        stop_(stop),
        plan_(plan_intervals(channels.front(), machine)),
        scratches_(scratch_for(channels.front(), plan_, machine)),
        results_(results_for(channels.front(), plan_)) {
    const std::size_t units = channels.front().source_models.size() * C14_STEPS_PER_STEM;
    for (const ChannelJob& job : channels) {
      counts_.emplace_back(job.progress, plan_.intervals.size(), units);
    }
  }

  void run(const StoreInterval& store);

 private:
  using Stems = ScratchPool<AudioArray>::Lease;

  bool is_split() const { return plan_.intervals.size() > 1; }
  std::size_t workers() const;
  Stems render_interval(std::size_t channel, std::size_t interval);
  /// The last interval of a channel whose render reads the models of this one.
  std::size_t last_reader(std::size_t interval) const;

  const std::vector<ChannelJob>& channels_;
  const Machine& machine_;
  const StopToken& stop_;
  IntervalPlan plan_;
  ScratchPool<RenderScratch> scratches_;
  ScratchPool<AudioArray> results_;
  std::deque<IntervalProgress> counts_;  // by channel
};

std::size_t IntervalSequence::workers() const {
  const std::size_t active = std::max<std::size_t>(1, channels_.front().active_channels);
  return std::min(active, channels_.size()) * plan_.time_workers;
}

IntervalSequence::Stems IntervalSequence::render_interval(std::size_t channel,
                                                          std::size_t interval) {
  ChannelJob job = channels_[channel];
  if (interval == 0) check_channel_job(job, C14_FFT_SIZE);
  job.workers = plan_.inner_workers;
  if (is_split()) job.progress = counts_[channel].of_interval(interval);
  const SampleSpan& span = plan_.intervals[interval];
  Stems stems = results_.lease();
  const auto scratch = scratches_.lease();
  _render_transient_release_tail_channel_interval(
      job, span, machine_, *scratch, (*stems).view().column_range(0, span.length()), stop_);
  return stems;
}

std::size_t IntervalSequence::last_reader(std::size_t interval) const {
  const std::size_t samples = channels_.front().residual.size();
  std::size_t reader = interval;
  while (reader + 1 < plan_.intervals.size() &&
         with_context(plan_.intervals[reader + 1], samples).first <
             plan_.intervals[interval].stop) {
    ++reader;
  }
  return reader;
}

void IntervalSequence::run(const StoreInterval& store) {
  const std::size_t intervals = plan_.intervals.size();
  auto rendered = _ordered_prefetch(
      [&](std::size_t index) { return render_interval(index / intervals, index % intervals); },
      channels_.size() * intervals, workers(), "verdel-c14-time", 1);
  for (std::size_t channel = 0; channel < channels_.size(); ++channel) {
    std::deque<Stems> waiting;  // for the last reader of the models in their place
    std::size_t stored = 0;
    for (std::size_t interval = 0; interval < intervals; ++interval) {
      waiting.push_back(*rendered.next());
      for (; !waiting.empty() && last_reader(stored) <= interval; ++stored) {
        const SampleSpan& span = plan_.intervals[stored];
        store(channel, span.first, (*waiting.front()).view().column_range(0, span.length()));
        waiting.pop_front();
      }
    }
    if (is_split()) counts_[channel].finish();
  }
}

}  // namespace

SampleSpan with_context(const SampleSpan& span, std::size_t samples) {
  const std::size_t before = span.first - std::min(span.first, kBefore);
  const std::size_t after = span.stop + kAfter;
  return {before / C14_HOP * C14_HOP, std::min(samples, (after + C14_HOP - 1) / C14_HOP * C14_HOP)};
}

Array2D<double> render_transient_release_tail_channel(const ChannelJob& job, const Machine& machine,
                                                      const StopToken& stop) {
  check_channel_job(job, C14_FFT_SIZE);
  auto rendered = AudioArray::uninitialised(job.source_models.size(), job.stop - job.start);
  render_channel_intervals(
      {job}, machine, stop, [&](std::size_t, std::size_t first, RowsView<const double> stems) {
        for (std::size_t index = 0; index < stems.rows(); ++index) {
          std::ranges::copy(stems.row(index),
                            rendered.row(index).subspan(first - job.start).begin());
        }
      });
  return rendered;
}

void render_channel_intervals(const std::vector<ChannelJob>& channels, const Machine& machine,
                              const StopToken& stop, const StoreInterval& store) {
  IntervalSequence(channels, machine, stop).run(store);
}

}  // namespace verdel
