#include "allocation/channels.hpp"

#include <algorithm>
#include <mutex>
#include <numeric>
#include <vector>

#include "allocation/c14_constants.hpp"
#include "allocation/interval_rendering.hpp"
#include "allocation/worker_budgets.hpp"

namespace verdel::internal {
namespace {

/// The count of finished steps that all channels share.
class SharedCount {
 public:
  SharedCount(const RenderProgress& progress, std::size_t channels, std::size_t steps)
      : progress_(progress), steps_(steps), done_(channels, 0) {}

  /// Called from the renders' threads. The caller hears of it under the lock, so that each call
  /// carries a sum that includes its own update and the count never falls.
  void report(std::size_t channel, std::size_t done) {
    if (!progress_) return;
    const std::lock_guard lock(channel_progress_lock_);
    done_[channel] = done;
    progress_(std::accumulate(done_.begin(), done_.end(), std::size_t{0}), steps_);
  }

 private:
  const RenderProgress& progress_;
  std::size_t steps_;
  std::mutex channel_progress_lock_;
  std::vector<std::size_t> done_;
};

ChannelJob rows_of(const Model& model, std::size_t channel) {
  ChannelJob job;
  job.residual = model.residual.row(channel);
  for (const auto& source : model.sources) job.source_models.push_back(source.audio.row(channel));
  return job;
}

StemMap unfilled_stems(const StemMap& like, std::size_t length) {
  StemMap stems;
  for (const auto& stem : like) {
    stems.push_back({stem.name, AudioArray::uninitialised(stem.audio.rows(), length)});
  }
  return stems;
}

}  // namespace

Model model_of_part(StemMap sources, AudioArray residual, const SampleSpan& part) {
  const std::size_t source_samples = residual.columns();
  if (part.length() < residual.columns()) {
    residual = AudioArray::copy_of(residual.view().column_range(part.first, part.stop));
  }
  return {.sources = std::move(sources),
          .residual = std::move(residual),
          .first = part.first,
          .source_samples = source_samples};
}

std::size_t channel_steps(std::size_t channels, std::size_t stems) {
  return channels * C14_STEPS_PER_STEM * stems;
}

StemMap render_channels(Model model, const ChannelsJob& job, const Machine& machine,
                        const StopToken& stop) {
  const std::size_t channels = model.residual.rows();
  const std::size_t frames = model.residual.columns();
  const std::size_t stems = model.sources.size();
  const std::size_t length = job.stop - job.start;
  const std::size_t start = job.start - model.first;
  const bool in_place = length == frames;
  StemMap excerpt = in_place ? StemMap{} : unfilled_stems(model.sources, length);
  StemMap& est = in_place ? model.sources : excerpt;

  const std::size_t channel_workers =
      _c14_channel_worker_count(frames, length, stems, channels, machine);
  SharedCount count(job.progress, channels, channel_steps(channels, stems));
  std::vector<ChannelJob> parts;
  for (std::size_t channel = 0; channel < channels; ++channel) {
    ChannelJob& part = parts.emplace_back(rows_of(model, channel));
    part.sr = job.sr;
    part.source_samples = model.source_samples;
    part.start = start;
    part.stop = start + length;
    part.workers = _c14_inner_worker_count(channel_workers, machine);
    part.active_channels = channel_workers;
    part.progress = [&count, &job, channel](std::size_t done, std::size_t total) {
      count.report(channel, done);
      if (job.watch) job.watch(done, total);
    };
  }
  const auto store = [&](std::size_t channel, std::size_t first, RowsView<const double> rendered) {
    for (std::size_t stem = 0; stem < stems; ++stem) {
      std::ranges::copy(rendered.row(stem),
                        est[stem].audio.row(channel).subspan(first - start).begin());
    }
  };
  render_channel_intervals(parts, machine, stop, store);
  return in_place ? std::move(model.sources) : std::move(excerpt);
}

}  // namespace verdel::internal
