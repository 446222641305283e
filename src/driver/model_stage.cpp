#include "driver/model_stage.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "allocation/interval_rendering.hpp"
#include "gain/shared_gain.hpp"
#include "signal/levels.hpp"
#include "signal/stem_sums.hpp"
#include "support/number_text.hpp"

namespace verdel::internal {
namespace {

void print_model_lines(const Run& run, const StemMap& taps) {
  const Options& options = run.options;
  run.lines.print(
      fmt::format("single-band shared gain: {} ms measurement, {} ms smoothing; transient "
                  "release-tail allocation",
                  general(options.gain_window), general(*options.gain_smooth)));
  if (options.low_resolution.empty()) return;
  std::vector<std::string> chosen = names_of(taps);
  std::erase_if(chosen, [&](const std::string& name) {
    return std::ranges::find(options.low_resolution, name) == options.low_resolution.end();
  });
  run.lines.print(fmt::format("32-band allocation: {}", fmt::join(chosen, ", ")));
}

// How far a level lies from another one, in words.
std::string level_against(AudioView part, double whole_rms) {
  return signed_one_decimal(levels(part).rms - whole_rms) + " dB";
}

}  // namespace

std::vector<AppliedLag> align_taps(const Run& run, const Mix& mix, StemMap& taps) {
  auto lags = align_taps_to_mix(mix.audio.view(), taps, mix.sr, run.machine, run.stop);
  for (const AppliedLag& moved : lags) run.lines.print(alignment_line(moved.name, moved.lag));
  return lags;
}

void print_raw_difference(const Run& run, const Mix& mix, const StemMap& taps, double mix_rms) {
  const AudioArray difference =
      difference_from(mix.audio.view(), sum_of(taps, mix.channels(), mix.frames()));
  run.lines.print(fmt::format("raw difference (taps summed vs mix): {}",
                              level_against(difference.view(), mix_rms)));
  run.lines.print("");
}

Model fit_model(const Run& run, const Mix& mix, const StemMap& taps, double mix_rms,
                OutputRange range) {
  print_model_lines(run, taps);
  run.lines.stage("fitting the shared gain");
  const ProgressLines progress(run.lines, run.options.progress_json);
  progress.emit_progress("render", 0, mix.channels() + 1);
  const SampleSpan part = with_context({range.start, range.stop}, mix.frames());
  SharedGainModel fitted =
      shared_single_band_model(mix.audio.view(), taps, mix.sr, run.options.gain_window,
                               *run.options.gain_smooth, run.stop, part);
  fitted.gain = {};
  AudioArray residual = difference_from(mix.audio.view(), std::move(fitted.model_sum));
  run.lines.print(fmt::format("after single-band gain: {} left to allocate",
                              level_against(residual.view(), mix_rms)));
  return model_of_part(std::move(fitted.models), std::move(residual), part);
}

StemMap allocate(const Run& run, Model model, int sr, OutputRange range) {
  const ProgressLines progress(run.lines, run.options.progress_json);
  // The fitted model was the first unit of the count.
  const ChannelsJob job{.sr = sr,
                        .start = range.start,
                        .stop = range.stop,
                        .progress = [&](std::size_t done, std::size_t total) {
                          progress.emit_progress("render", 1 + done, 1 + total);
                          run.lines.stage("rendering",
                                          static_cast<double>(done) / static_cast<double>(total));
                        }};
  StemMap est = render_channels(std::move(model), job, run.machine, run.stop);
  progress.emit_progress("finalize", 0, 1);
  return est;
}

}  // namespace verdel::internal
