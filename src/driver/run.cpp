#include "driver/run.hpp"

#include "driver/delivery_stage.hpp"
#include "driver/input_stage.hpp"
#include "driver/model_stage.hpp"
#include "driver/option_rules.hpp"
#include "driver/overwrite_guard.hpp"
#include "driver/unfit_input.hpp"
#include "excerpt/excerpt_suggestion.hpp"
#include "signal/levels.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

void print_suggestion(const Run& run, const Mix& mix) {
  const ExcerptSuggestion found =
      suggest_excerpt(mix.audio.view(), mix.sr, run.options.suggest_excerpt, run.stop);
  run.lines.print(
      suggestion_line(found.start, found.length, mix.sr, found.bpm, found.bars, found.confidence));
}

/// Aligns the taps and fits the model; a failure that an input's samples explain names the file on
/// a second line.
Model align_and_fit(const Run& run, const Mix& mix, StemMap& taps,
                    const std::vector<StemInput>& plan, OutputRange range) {
  std::vector<AppliedLag> lags;
  const auto with_file = [&](const std::exception& failure) {
    const auto file = unfit_input(mix, taps, plan, lags);
    return file ? std::string(failure.what()) + "\n" + *file : failure.what();
  };
  try {
    const double mix_rms = levels(mix.audio.view()).rms;
    run.lines.stage("aligning the taps");
    lags = align_taps(run, mix, taps);
    print_raw_difference(run, mix, taps, mix_rms);
    return fit_model(run, mix, taps, mix_rms, range);
  } catch (const FloatingPointError& failure) {
    throw FloatingPointError(with_file(failure));
  } catch (const ValueError& failure) {
    throw ValueError(with_file(failure));
  }
}

}  // namespace

void run_engine(Run run) {
  apply_option_rules(run.options, run.command_line);
  resolve_paths(run.options, run.lines);
  const bool only_suggest = run.options.suggest_excerpt > 0.0;
  if (!only_suggest) refuse_overwriting(run.options);

  run.lines.stage("reading the mix");
  const Mix mix = read_mix(run);
  if (only_suggest) return print_suggestion(run, mix);

  const std::vector<StemInput> plan = plan_stem_inputs(*run.options.taps);
  check_preflight(run, mix, plan.size());
  run.lines.stage("reading the taps");
  StemMap taps = read_taps(run, mix, plan);
  require_known_low_resolution(run.options, names_of(taps), run.command_line);
  const OutputRange range = choose_output_range(run, mix);

  Model model = align_and_fit(run, mix, taps, plan, range);
  const StemMap est = allocate(run, std::move(model), mix.sr, range);
  run.lines.stage("writing the stems");
  deliver(run, mix, taps, est, range);
}

}  // namespace verdel::internal
