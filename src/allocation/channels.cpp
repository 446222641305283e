#include "driver/channels.hpp"

#include <algorithm>
#include <future>
#include <mutex>
#include <numeric>

#include "allocation/c14_constants.hpp"
#include "allocation/interval_rendering.hpp"
#include "allocation/worker_budgets.hpp"
#include "support/thread_pool.hpp"

namespace verdel {
namespace {

/// The count of finished units that all channels share.
class ChannelProgress {
 public:
  ChannelProgress(const Run& run, std::size_t channels, std::size_t stems)
      : lines_(run.lines, run.options.progress_json),
        total_(1 + channels * C14_STEPS_PER_STEM * stems),
        channel_done_(channels, 0) {}

  /// Called from the channels' threads. The line is written under the lock, so that each carries a
  /// sum that includes its own update and the count on the stream never falls.
  void report(std::size_t channel, std::size_t done) {
    const std::lock_guard lock(channel_progress_lock_);
    channel_done_[channel] = done;
    lines_.emit_progress(
        "render", std::accumulate(channel_done_.begin(), channel_done_.end(), std::size_t{1}),
        total_);
  }

 private:
  ProgressLines lines_;
  std::size_t total_;
  std::mutex channel_progress_lock_;
  std::vector<std::size_t> channel_done_;
};

ChannelJob job_of(const Model& model, std::size_t channel) {
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

// A stem may stand in the storage of its model, which the channel's task reads: a row is stored
// only after that task has returned.
void store_channel(const Array2D<double>& rendered, std::size_t channel, StemMap& est) {
  for (std::size_t stem = 0; stem < est.size(); ++stem) {
    std::ranges::copy(rendered.row(stem), est[stem].audio.row(channel).begin());
  }
}

}  // namespace

StemMap render_channels(const Run& run, Model model, int sr, OutputRange range) {
  const std::size_t channels = model.residual.rows();
  const std::size_t frames = model.residual.columns();
  const std::size_t stems = model.sources.size();
  const bool in_place = range.is_whole(frames);
  StemMap excerpt = in_place ? StemMap{} : unfilled_stems(model.sources, range.length());
  StemMap& est = in_place ? model.sources : excerpt;

  const std::size_t channel_workers =
      _c14_channel_worker_count(frames, range.length(), stems, channels, run.machine);
  const std::size_t inner_workers = _c14_inner_worker_count(channel_workers, run.machine);
  ChannelProgress progress(run, channels, stems);
  const auto render_candidate_channel = [&](std::size_t channel) {
    ChannelJob job = job_of(model, channel);
    job.sr = sr;
    job.start = range.start;
    job.stop = range.stop;
    job.workers = inner_workers;
    job.active_channels = channel_workers;
    job.progress = [&progress, channel](std::size_t done, std::size_t) {
      progress.report(channel, done);
    };
    return render_transient_release_tail_channel(job, run.machine, run.stop);
  };

  {
    ThreadPool pool(channel_workers, "");
    std::vector<std::future<Array2D<double>>> results;
    for (std::size_t channel = 0; channel < channels; ++channel) {
      results.push_back(pool.submit([&, channel] { return render_candidate_channel(channel); }));
    }
    try {
      for (std::size_t channel = 0; channel < channels; ++channel) {
        store_channel(results[channel].get(), channel, est);
      }
    } catch (...) {
      pool.cancel_pending();
      throw;
    }
  }
  ProgressLines(run.lines, run.options.progress_json).emit_progress("finalize", 0, 1);
  return in_place ? std::move(model.sources) : std::move(excerpt);
}

}  // namespace verdel
