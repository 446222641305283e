#include "driver/input_stage.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "allocation/c14_constants.hpp"
#include "allocation/worker_budgets.hpp"
#include "inputs/audio_loading.hpp"
#include "inputs/path_text.hpp"
#include "inputs/project_resolution.hpp"
#include "support/errors.hpp"
#include "support/number_text.hpp"
#include "support/temporary_directory.hpp"

namespace verdel::internal {
namespace {

// More readers than this only queue for the same disk.
constexpr std::size_t kMostDecoders = 8;

/// Refuses what the processing profile of the parent application is not made for.
void require_fit(const Run& run, const Mix& mix, std::size_t stem_count) {
  if (mix.frames() < C14_FFT_SIZE) {
    throw ValueError(fmt::format(
        "the mix is only {} frames; VERDEL needs at least {} frames for this processing profile",
        mix.frames(), C14_FFT_SIZE));
  }
  const auto error =
      _c14_resource_budget_error(mix.frames(), mix.sr, stem_count, mix.channels(), run.machine);
  if (error) throw ValueError(*error);
}

}  // namespace

void resolve_paths(Options& options, OutputLines& lines) {
  ProjectPaths paths{.project = options.project,
                     .mix = options.mix,
                     .taps = options.taps,
                     .out = options.out,
                     .suggest_excerpt = options.suggest_excerpt};
  for (const std::string& line : resolve(paths)) lines.print(line);
  options.mix = std::move(paths.mix);
  options.taps = std::move(paths.taps);
  options.out = std::move(paths.out);
}

Mix read_mix(const Run& run) {
  const std::string& path = *run.options.mix;
  Mix mix{.input = plan_mix_input(path), .audio = {}};
  LoadedAudio loaded = load_audio_input(mix.input, run.stop, run.storage);
  mix.audio = std::move(loaded.audio);
  mix.sr = loaded.sr;

  const bool is_pair = mix.input.files.size() == 2;
  run.lines.print(fmt::format(
      "mix   {}  {} Hz  {}ch  {}s", is_pair ? mix.input.name + " (.L + .R)" : basename(path),
      mix.sr, mix.channels(), one_decimal(static_cast<double>(mix.frames()) / mix.sr)));
  if (mix.channels() != 2 && !run.options.any_channels) {
    throw ValueError(
        fmt::format("the mix is {}-channel; VERDEL handles stereo files. Bounce the mix and the "
                    "stems as stereo.",
                    mix.channels()));
  }
  return mix;
}

void check_preflight(const Run& run, const Mix& mix, std::size_t stem_count) {
  if (run.options.allocation == "candidate14") require_fit(run, mix, stem_count);
  // Scratch space is needed by every render: whether there can be any is tried now.
  const TemporaryDirectory trial(run.machine.temporary_folder(), "verdel-c14-");
}

StemMap read_taps(const Run& run, const Mix& mix, const std::vector<StemInput>& plan) {
  const StemLoading loading{.mix_sr = mix.sr,
                            .mix_channels = mix.channels(),
                            .mix_frames = mix.frames(),
                            .any_channels = run.options.any_channels,
                            .strict_inputs = run.options.strict_inputs,
                            .workers = std::min(run.machine.processors(), kMostDecoders),
                            .storage = run.storage};
  return load_stem_inputs(
      plan, loading, [&run](std::string_view line) { run.lines.print(line); }, run.stop);
}

std::vector<std::string> names_of(const StemMap& stems) {
  std::vector<std::string> names;
  names.reserve(stems.size());
  for (const auto& stem : stems) names.push_back(stem.name);
  return names;
}

SampleSpan choose_output_range(const Run& run, const Mix& mix) {
  const std::size_t frames = mix.frames();
  const double length = run.options.excerpt_len.value_or(0.0);
  if (!(length > 0.0)) return {.first = 0, .stop = frames};

  const double sr = mix.sr;
  // Comparisons are written so that a NaN counts as 0.
  double seconds = run.options.excerpt_start.value_or(0.0);
  if (!(seconds > 0.0)) seconds = 0.0;
  const double latest = std::max(static_cast<double>(frames) / sr - length, 0.0);
  seconds = std::min(seconds, latest);
  const double end = (seconds + length) * sr;
  if (!std::isfinite(end)) {
    throw ValueError(fmt::format(
        "--excerpt-len {} is too long to be counted in samples. Pass a length in seconds.",
        general(length)));
  }
  // nearbyint takes halves to the even number.
  const double stop = std::nearbyint(end);
  const SampleSpan range{
      .first = static_cast<std::size_t>(std::nearbyint(seconds * sr)),
      .stop = stop < static_cast<double>(frames) ? static_cast<std::size_t>(stop) : frames};
  run.lines.print(
      fmt::format("demo excerpt: {}s + {}s (full-source context retained; trim on export)",
                  one_decimal(seconds), general(length)));
  run.lines.print(excerpt_start_line(range.first, mix.sr));
  if (range.length() == 0) {
    throw ValueError(fmt::format(
        "invalid candidate-14 allocation inputs or interval\n--excerpt-len {} holds no sample at "
        "{} Hz. Pass a longer excerpt, in seconds.",
        general(length), mix.sr));
  }
  return range;
}

}  // namespace verdel::internal
