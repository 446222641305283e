#include "render/render_song.hpp"

#include <string>
#include <utility>
#include <vector>

#include "allocation/interval_rendering.hpp"
#include "gain/shared_gain.hpp"
#include "signal/levels.hpp"
#include "signal/stem_sums.hpp"

namespace verdel::internal {
namespace {

void align(const SongJob& job, StemMap& taps, const Machine& machine, SongObserver& observer,
           const StopToken& stop) {
  if (!job.align) return;
  observer.begin(Stage::kAligning);
  observer.aligned(align_taps_to_mix(job.mix, taps, job.sr, machine, stop, job.storage));
}

/// Fits the whole mix; the model is of the part that a render of the range looks at.
Model fit(const SongJob& job, const StemMap& taps, SongObserver& observer, const StopToken& stop) {
  const double mix_rms = job.tell_levels ? levels(job.mix).rms : 0.0;
  AudioArray sum = sum_of_taps(job.mix, taps, stop, job.storage);
  if (job.tell_levels) {
    observer.raw_difference(levels_of_difference(job.mix, sum.view()).rms - mix_rms);
  }
  observer.begin(Stage::kFitting);
  AudioArray gain =
      shared_single_band_gain(job.mix, std::move(sum), job.sr, job.profile.gain_window_ms,
                              job.profile.gain_smooth_ms, stop);
  if (job.tell_levels) {
    observer.left_to_allocate(level_behind_models(job.mix, taps, gain.view(), stop) - mix_rms);
  }
  return model_of_part(taps, std::move(gain), job.mix, with_context(job.range, job.mix.columns()));
}

CoordinatedStems unfilled_stems(const SongJob& job, const StemMap& taps) {
  std::vector<std::string> names;
  for (const auto& tap : taps) names.push_back(tap.name);
  return {std::move(names), job.mix.column_range(job.range.first, job.range.stop),
          job.profile.null_threshold, job.storage};
}

}  // namespace

CoordinatedStems render_song(const SongJob& job, StemMap& taps, const Machine& machine,
                             SongObserver& observer, const StopToken& stop) {
  align(job, taps, machine, observer, stop);
  const Model model = fit(job, taps, observer, stop);
  observer.fitted(model);
  observer.begin(Stage::kAllocating);
  const ChannelsJob channels{
      .sr = job.sr,
      .start = job.range.first,
      .stop = job.range.stop,
      .progress = [&](std::size_t done, std::size_t total) { observer.progress(done, total); },
      .watch = [&](std::size_t done,
                   std::size_t total) { observer.channel_progress(done, total); }};
  CoordinatedStems stems = unfilled_stems(job, taps);
  render_channels(
      model, channels, machine,
      [&](std::size_t channel, std::size_t first, RowsView<const double> rendered) {
        stems.take(channel, first - job.range.first, rendered);
      },
      stop);
  return stems;
}

}  // namespace verdel::internal
