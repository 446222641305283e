#include "allocation/channels.hpp"

#include <mutex>
#include <numeric>
#include <vector>

#include "allocation/c14_constants.hpp"

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
  for (const auto& tap : model.taps) job.taps.push_back(tap.audio.row(channel));
  job.gain = model.gain.row(channel);
  job.mix = model.mix.row(channel);
  return job;
}

}  // namespace

Model model_of_part(const StemMap& taps, AudioArray gain, AudioView mix, const SampleSpan& part) {
  const std::size_t source_samples = mix.columns();
  if (part.length() < source_samples) {
    gain = AudioArray::copy_of(gain.view().column_range(part.first, part.stop));
  }
  return {.taps = column_range(views_of(taps), part.first, part.stop),
          .gain = std::move(gain),
          .mix = mix.column_range(part.first, part.stop),
          .first = part.first};
}

std::size_t channel_steps(std::size_t channels, std::size_t stems) {
  return channels * C14_STEPS_PER_STEM * stems;
}

void render_channels(const Model& model, const ChannelsJob& job, const Machine& machine,
                     const StoreInterval& store, const StopToken& stop) {
  const std::size_t channels = model.mix.rows();
  const std::size_t stems = model.taps.size();
  const std::size_t length = job.stop - job.start;
  const std::size_t start = job.start - model.first;

  SharedCount count(job.progress, channels, channel_steps(channels, stems));
  std::vector<ChannelJob> parts;
  for (std::size_t channel = 0; channel < channels; ++channel) {
    ChannelJob& part = parts.emplace_back(rows_of(model, channel));
    part.sr = job.sr;
    part.start = start;
    part.stop = start + length;
    part.progress = [&count, &job, channel](std::size_t done, std::size_t total) {
      count.report(channel, done);
      if (job.watch) job.watch(done, total);
    };
  }
  render_channel_intervals(
      parts, machine, stop,
      [&](std::size_t channel, std::size_t first, RowsView<const double> rendered) {
        store(channel, model.first + first, rendered);
      });
}

}  // namespace verdel::internal
