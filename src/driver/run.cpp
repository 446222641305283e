#include "driver/run.hpp"

#include "driver/chain_files.hpp"
#include "driver/chain_stage.hpp"
#include "driver/input_stage.hpp"
#include "driver/option_rules.hpp"
#include "driver/overwrite_guard.hpp"
#include "driver/song_lines.hpp"
#include "excerpt/excerpt_suggestion.hpp"
#include "render/deliver_song.hpp"
#include "render/unfit_input.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

// The share of the machine's memory that whole songs may take; beyond it they stand in files.
constexpr double kSongMemory = 0.4;

void print_suggestion(const Run& run, const Mix& mix) {
  const ExcerptSuggestion found =
      suggest_excerpt(mix.audio.view(), mix.sr, run.options.suggest_excerpt, run.stop);
  run.lines.print(
      suggestion_line(found.start, found.length, mix.sr, found.bpm, found.bars, found.confidence));
}

SongJob song_job(const Run& run, const Mix& mix, SampleSpan range) {
  const Options& options = run.options;
  return {.mix = mix.audio.view(),
          .sr = mix.sr,
          .range = range,
          .profile = {.gain_window_ms = options.gain_window,
                      .gain_smooth_ms = *options.gain_smooth,
                      .report_bands = static_cast<std::size_t>(*options.bands)},
          .tell_levels = true,
          .storage = run.storage};
}

/// A failure that an input's samples explain names the file on a second line.
std::string with_file(const std::exception& failure, const Mix& mix, const StemMap& taps,
                      const std::vector<StemInput>& plan, const std::vector<AppliedLag>& lags) {
  const auto unfit = unfit_input(mix.audio.view(), taps, lags);
  if (!unfit) return failure.what();
  const StemInput& input = unfit->tap ? plan[*unfit->tap] : mix.input;
  const bool is_pair = input.files.size() == 2;
  const std::size_t file = is_pair ? unfit->channel : 0;
  return std::string(failure.what()) + "\n" + input.files[file] + ": " +
         unfit_text(*unfit, mix.channels(), is_pair ? 0 : unfit->channel);
}

CoordinatedStems render(const Run& run, const SongJob& job, const Mix& mix, StemMap& taps,
                        const std::vector<StemInput>& plan, SongLines& lines) {
  try {
    return render_song(job, taps, run.machine, lines, run.stop);
  } catch (const FloatingPointError& failure) {
    throw FloatingPointError(with_file(failure, mix, taps, plan, lines.lags()));
  } catch (const ValueError& failure) {
    throw ValueError(with_file(failure, mix, taps, plan, lines.lags()));
  }
}

void deliver(const Run& run, const SongJob& job, const StemMap& taps, CoordinatedStems stems,
             SongLines& lines) {
  const SongFiles files{.out = *run.options.out,
                        .write_null = run.options.write_null,
                        .report = !run.options.no_report,
                        .workers = run.machine.processors()};
  const LineSink print = [&run](std::string_view line) { run.lines.print(line); };
  const DeliveryVerdict verdict =
      deliver_song(job, taps, std::move(stems), files, print, lines, run.stop);
  if (!verdict.proof.passed) {
    throw RuntimeError("written single-band stems failed reconstruction verification\n" +
                       shallow_null_text(verdict, job.range.first, job.sr));
  }
}

}  // namespace

SongStorage song_storage(const Machine& machine) {
  const double bytes = kSongMemory * static_cast<double>(machine.physical_memory());
  return {static_cast<std::uint64_t>(bytes), machine.temporary_folder()};
}

void run_engine(Run run) {
  run.storage = song_storage(run.machine);
  apply_option_rules(run.options, run.command_line);
  resolve_paths(run.options, run.lines);
  const bool only_suggest = run.options.suggest_excerpt > 0.0;
  const bool only_look = run.chain != nullptr && run.chain->look;
  if (!only_suggest && !only_look) refuse_overwriting(run.options);
  if (run.chain != nullptr) require_chain_places(*run.chain, run.options);

  run.lines.stage(name_of(Stage::kReadingMix));
  const Mix mix = read_mix(run);
  if (only_suggest) return print_suggestion(run, mix);

  const std::vector<StemInput> plan = plan_stem_inputs(*run.options.taps);
  check_preflight(run, mix, plan.size());
  run.lines.stage(name_of(Stage::kReadingTaps));
  StemMap taps = read_taps(run, mix, plan);
  require_known_low_resolution(run.options, names_of(taps), run.command_line);
  SongJob job = song_job(run, mix, choose_output_range(run, mix));

  SongLines lines(run, mix.channels(), names_of(taps));
  if (run.chain != nullptr) {
    const auto moved = hear_and_tell(run, *run.chain, mix, taps);
    if (only_look) return run.lines.release();
    // The engine does not move again what stands in line with the chain.
    job.align = moved.empty();
    run.lines.release();
    lines.aligned(moved);
  }
  CoordinatedStems stems = render(run, job, mix, taps, plan, lines);
  lines.finalize();
  deliver(run, job, taps, std::move(stems), lines);
}

}  // namespace verdel::internal
