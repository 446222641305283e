#include "allocation/interval_rendering.hpp"

#include <algorithm>
#include <cmath>
#include <memory>
#include <mutex>
#include <numeric>
#include <vector>

#include "allocation/worker_budgets.hpp"
#include "support/ordered_prefetch.hpp"

namespace verdel {
namespace {

constexpr std::size_t kBefore = C14_CONTEXT_BEFORE_HOPS * C14_HOP;
constexpr std::size_t kAfter = C14_CONTEXT_AFTER_HOPS * C14_HOP;

using Interval = IntervalPlan::Interval;

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

/// Room for the longest interval, with its context rounded out to whole hops.
ScratchPool<RenderScratch> scratch_for(const ChannelJob& shape, const IntervalPlan& plan,
                                       const Machine& machine) {
  const Interval& first = plan.intervals.front();
  const std::size_t span = first.stop - std::min(first.first, first.stop) + 1;
  const std::size_t longest =
      std::min(shape.residual.size(), span + kBefore + kAfter + 2 * C14_HOP);
  const std::size_t spectra = std::min(plan.inner_workers, RenderScratch::kMostScoringSpectra);
  return ScratchPool<RenderScratch>(
      [machine, stems = shape.source_models.size(), longest, spectra] {
        return std::make_unique<RenderScratch>(machine, stems, longest, spectra);
      });
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
  return ChannelRenderer(job, machine).render(job, stop);
}

ChannelRenderer::ChannelRenderer(const ChannelJob& shape, const Machine& machine)
    : machine_(machine),
      plan_(plan_intervals(shape, machine)),
      scratches_(scratch_for(shape, plan_, machine)) {}

Array2D<double> ChannelRenderer::render(const ChannelJob& job, const StopToken& stop) {
  check_channel_job(job, C14_FFT_SIZE);
  if (plan_.intervals.size() > 1) return render_intervals(job, stop);
  const auto scratch = scratches_.lease();
  return _render_transient_release_tail_channel_interval(job, machine_, stop, &*scratch);
}

Array2D<double> ChannelRenderer::render_intervals(const ChannelJob& job, const StopToken& stop) {
  const std::size_t stems = job.source_models.size();
  IntervalProgress progress(job.progress, plan_.intervals.size(), stems * C14_STEPS_PER_STEM);
  auto rendered = Array2D<double>::uninitialised(stems, job.stop - job.start);
  auto results = _ordered_prefetch(
      [&](std::size_t index) {
        ChannelJob part = job;
        part.start = plan_.intervals[index].first;
        part.stop = plan_.intervals[index].stop;
        part.workers = plan_.inner_workers;
        part.progress = progress.of_interval(index);
        const auto scratch = scratches_.lease();
        return _render_transient_release_tail_channel_interval(part, machine_, stop, &*scratch);
      },
      plan_.intervals.size(), plan_.time_workers, "verdel-c14-time");
  for (const Interval& interval : plan_.intervals) {
    const auto chunk = results.next();
    for (std::size_t index = 0; index < stems; ++index) {
      std::copy_n(chunk->row(index).data(), interval.stop - interval.first,
                  rendered.row(index).data() + (interval.first - job.start));
    }
  }
  progress.finish();
  return rendered;
}

}  // namespace verdel
