#include "render/render_song.hpp"

#include "allocation/interval_rendering.hpp"
#include "gain/shared_gain.hpp"
#include "signal/levels.hpp"
#include "signal/stem_sums.hpp"

namespace verdel::internal {
namespace {

double rms(AudioView audio) {
  return levels(audio).rms;
}

void align(const SongJob& job, StemMap& taps, const Machine& machine, SongObserver& observer,
           const StopToken& stop) {
  if (!job.align) return;
  observer.begin(Stage::kAligning);
  observer.aligned(align_taps_to_mix(job.mix, taps, job.sr, machine, stop));
}

/// Fits the whole mix; the model is of the part that a render of the range looks at.
Model fit(const SongJob& job, const StemMap& taps, SongObserver& observer, const StopToken& stop) {
  const double mix_rms = job.tell_levels ? rms(job.mix) : 0.0;
  if (job.tell_levels) {
    const AudioArray difference =
        difference_from(job.mix, sum_of(taps, job.mix.rows(), job.mix.columns()));
    observer.raw_difference(rms(difference.view()) - mix_rms);
  }
  observer.begin(Stage::kFitting);
  const SampleSpan part = with_context(job.range, job.mix.columns());
  SharedGainModel fitted = shared_single_band_model(
      job.mix, taps, job.sr, job.profile.gain_window_ms, job.profile.gain_smooth_ms, stop, part);
  fitted.gain = {};
  AudioArray residual = difference_from(job.mix, std::move(fitted.model_sum));
  if (job.tell_levels) observer.left_to_allocate(rms(residual.view()) - mix_rms);
  return model_of_part(std::move(fitted.models), std::move(residual), part);
}

}  // namespace

StemMap render_song(const SongJob& job, StemMap& taps, const Machine& machine,
                    SongObserver& observer, const StopToken& stop) {
  align(job, taps, machine, observer, stop);
  Model model = fit(job, taps, observer, stop);
  observer.fitted(model);
  observer.begin(Stage::kAllocating);
  const ChannelsJob channels{
      .sr = job.sr,
      .start = job.range.first,
      .stop = job.range.stop,
      .progress = [&](std::size_t done, std::size_t total) { observer.progress(done, total); },
      .watch = [&](std::size_t done,
                   std::size_t total) { observer.channel_progress(done, total); }};
  return render_channels(std::move(model), channels, machine, stop);
}

}  // namespace verdel::internal
