#include "allocation/interval_rendering.hpp"

#include <algorithm>
#include <cmath>
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

struct Interval {
  std::size_t first, stop;
};

/// Consecutive intervals that cover the span, their lengths one sample apart at most.
std::vector<Interval> cut_span(std::size_t start, std::size_t stop, int sr) {
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
  std::vector<Interval> intervals(count);
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

Array2D<double> render_intervals(const ChannelJob& job, const Machine& machine,
                                 const StopToken& stop) {
  const std::size_t span = job.stop - job.start;
  const std::size_t stems = job.source_models.size();
  const std::size_t active = std::max<std::size_t>(1, job.active_channels);
  const std::size_t time_workers =
      _c14_time_worker_count(span, job.sr, stems, job.active_channels, machine);
  const std::vector<Interval> intervals = cut_span(job.start, job.stop, job.sr);
  // Intervals side by side use the processors better than threads inside one.
  const std::size_t inner_workers = std::max<std::size_t>(
      1, std::min({std::size_t{2}, job.workers, machine.processors() / (active * time_workers)}));
  IntervalProgress progress(job.progress, intervals.size(), stems * C14_STEPS_PER_STEM);
  auto rendered = Array2D<double>::uninitialised(stems, span);
  // The longest interval, with its context rounded out to whole hops.
  const std::size_t longest =
      std::min(job.residual.size(), span / intervals.size() + 1 + kBefore + kAfter + 2 * C14_HOP);
  ScratchPool<RenderScratch> scratches(
      [&] { return std::make_unique<RenderScratch>(machine, stems, longest, inner_workers); });

  auto results = _ordered_prefetch(
      [&](std::size_t index) {
        ChannelJob part = job;
        part.start = intervals[index].first;
        part.stop = intervals[index].stop;
        part.workers = inner_workers;
        part.progress = progress.of_interval(index);
        const auto scratch = scratches.lease();
        return _render_transient_release_tail_channel_interval(part, machine, stop, &*scratch);
      },
      intervals.size(), time_workers, "verdel-c14-time");
  for (const Interval& interval : intervals) {
    const auto chunk = results.next();
    for (std::size_t index = 0; index < stems; ++index) {
      std::copy_n(chunk->row(index).data(), interval.stop - interval.first,
                  rendered.row(index).data() + (interval.first - job.start));
    }
  }
  progress.finish();
  return rendered;
}

}  // namespace

Array2D<double> _render_transient_release_tail_channel_interval(const ChannelJob& job,
                                                                const Machine& machine,
                                                                const StopToken& stop,
                                                                RenderScratch* scratch) {
  const std::size_t samples = job.residual.size();
  if (job.start == 0 && job.stop == samples) {
    return _render_transient_release_tail_channel_full(job, machine, stop, scratch);
  }
  const std::size_t left = job.start < kBefore ? 0 : (job.start - kBefore) / C14_HOP * C14_HOP;
  const std::size_t right =
      std::min(samples, (job.stop + kAfter + C14_HOP - 1) / C14_HOP * C14_HOP);
  ChannelJob slice = job;
  slice.start = job.start - left;
  slice.stop = job.stop - left;
  slice.residual = job.residual.subspan(left, right - left);
  for (auto& source : slice.source_models) source = source.subspan(left, right - left);
  return _render_transient_release_tail_channel_full(slice, machine, stop, scratch);
}

Array2D<double> render_transient_release_tail_channel(const ChannelJob& job, const Machine& machine,
                                                      const StopToken& stop) {
  check_channel_job(job, C14_FFT_SIZE);
  const double shortest_split = std::nearbyint(C14_INTERVAL_MIN_SECONDS * job.sr);
  if (static_cast<double>(job.stop - job.start) < shortest_split) {
    return _render_transient_release_tail_channel_interval(job, machine, stop);
  }
  return render_intervals(job, machine, stop);
}

}  // namespace verdel
