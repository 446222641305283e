#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "allocation/c14_constants.hpp"
#include "allocation/worker_budgets.hpp"
#include "allocator_phases.hpp"
#include "contamination/report.hpp"
#include "delivery/audio_file_writing.hpp"
#include "delivery/coordinated_float32.hpp"
#include "delivery/verification.hpp"
#include "driver/input_stage.hpp"
#include "driver/model_stage.hpp"
#include "driver/option_rules.hpp"
#include "driver/option_table.hpp"
#include "excerpt/excerpt_suggestion.hpp"
#include "measures.hpp"
#include "results.hpp"
#include "signal/instruction_sets.hpp"
#include "signal/levels.hpp"
#include "support/errors.hpp"

// Renders a project as the engine does, stage by stage, and tells what each stage cost. The stems
// go to the project's output folder.
namespace verdel::internal {
namespace {

constexpr double kNullThreshold = -140.0;  // dBFS

constexpr const char* kUsage =
    "usage: verdel-bench PROJECT [--no-report] [--processors N] [--excerpt SECONDS]\n"
    "                    [--kernels baseline|avx2|avx512] [--json FILE]\n"
    "  --processors: play a machine with so many; --excerpt: from the middle of the song\n"
    "  --kernels: the instruction set of the engine's own kernels; the best one without it\n"
    "Exit status: 3 if the machine is too small for the render.\n";
constexpr int kTooLarge = 3;

struct Arguments {
  std::string project, json;
  bool no_report = false;
  std::size_t processors = 0;  // 0: as many as there are
  double excerpt = 0.0;        // s; 0: the whole song
};

/// The engine's own check refused the render before a tap was opened.
class TooLarge : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Runs stages one after the other and keeps what each of them cost.
class Measurement {
 public:
  /// Runs a stage and returns what it returns.
  template <class Stage>
  auto stage(const std::string& name, Stage run) {
    const std::uint64_t before = anonymous_memory();
    watch_.take_peak();
    const Moment begin = Moment::now();
    auto result = run();
    costs_.push_back({name, Moment::now() - begin, before, watch_.take_peak()});
    return result;
  }

  const std::vector<StageCost>& costs() const { return costs_; }

 private:
  MemoryWatch watch_;
  std::vector<StageCost> costs_;
};

/// Writes the stems and takes the levels that the engine prints beside them.
std::vector<StemInput> write_stems(const std::string& folder, DeliveredStems delivered,
                                   const StemViews& taps, int sr) {
  std::filesystem::create_directories(folder);
  std::vector<StemInput> files;
  for (std::size_t stem = 0; stem < taps.size(); ++stem) {
    const auto [name, audio] = std::move(delivered[stem]);
    files.push_back({name, {folder + "/" + name + ".wav"}});
    AudioFileWriter writer(files.back().files.front(),
                           {.sr = sr, .channels = audio.rows(), .frames = audio.columns()});
    writer.write(audio.view());
    writer.commit();
    levels(audio.view());
    levels(taps[stem].audio);
  }
  return files;
}

/// The report as the engine makes it; returns how many lines it has.
std::size_t make_report(const Run& run, const Mix& mix, const StemViews& taps, const StemMap& est) {
  std::size_t lines = 0;
  report({.est = views_of(est),
          .taps = taps,
          .sr = mix.sr,
          .n_bands = static_cast<std::size_t>(*run.options.bands),
          .nfft = std::bit_ceil(mix.frames() + 1),
          .workers = run.machine.processors()},
         [&lines](std::string_view) { ++lines; });
  return lines;
}

void print_suggestion(const Mix& mix) {
  const Moment begin = Moment::now();
  const auto found = suggest_excerpt(mix.audio.view(), mix.sr);
  fmt::print("suggestion, on the mix alone: {:.2f} s of processor time ({:.2f} bpm)\n\n",
             (Moment::now() - begin).cpu, found.bpm);
}

Results results_of_job(const Run& run, const Mix& mix, std::size_t stems, OutputRange range) {
  Results results;
  results.seconds = static_cast<double>(mix.frames()) / mix.sr;
  results.output_seconds = static_cast<double>(range.length()) / mix.sr;
  results.stems = stems;
  results.channels = mix.channels();
  results.sr = mix.sr;
  results.processors = run.machine.processors();
  results.instruction_set = name_of(instruction_set());
  results.channels_at_once =
      _c14_channel_worker_count(mix.frames(), range.length(), stems, mix.channels(), run.machine);
  results.intervals_at_once =
      _c14_time_worker_count(range.length(), mix.sr, stems, results.channels_at_once, run.machine);
  // The stems of a whole song take the place of its models.
  if (!range.is_whole(mix.frames())) {
    results.result_bytes =
        static_cast<double>(stems * mix.channels() * range.length() * sizeof(double));
  }
  return results;
}

/// Tells the frames of first and repeated intervals apart as the watch has counted them.
/// `allocator`: the stage's processor time.
void take_phases(const PhaseWatch& watch, const std::vector<std::size_t>& frames, double allocator,
                 Results& results) {
  results.first = watch.first();
  results.repeated = watch.repeated();
  if (results.phases_by_clock) {
    const double factor = allocator / (results.first.sum() + results.repeated.sum());
    results.first.scale(factor);
    results.repeated.scale(factor);
  }
  // Each channel that renders at once begins with the first of its intervals.
  const auto firsts = frames.begin() + static_cast<std::ptrdiff_t>(results.first.intervals /
                                                                   results.channels_at_once);
  const auto stems = static_cast<double>(results.stems);
  const double first = std::accumulate(frames.begin(), firsts, 0.0);
  const double all = std::accumulate(frames.begin(), frames.end(), 0.0);
  results.first_units = stems * static_cast<double>(results.channels_at_once) * first;
  results.repeated_units =
      stems * static_cast<double>(results.channels) * all - results.first_units;
}

Results measure_render(Run& run) {
  Measurement measure;
  Mix mix = measure.stage("load mix", [&] { return read_mix(run); });
  const double seconds = static_cast<double>(mix.frames()) / mix.sr;
  run.options.excerpt_start = 0.5 * (seconds - run.options.excerpt_len.value_or(seconds));
  const std::size_t stems = plan_stem_inputs(*run.options.taps).size();
  try {
    check_preflight(run, mix, stems);
  } catch (const ValueError& refusal) {
    throw TooLarge(refusal.what());
  }
  StemMap taps = measure.stage("load taps", [&] { return read_taps(run, mix); });
  const OutputRange range = choose_output_range(run, mix);
  measure.stage("align", [&] { return align_taps(run, mix, taps); });
  Model model = measure.stage("model", [&] {
    const double mix_rms = levels(mix.audio.view()).rms;
    print_raw_difference(run, mix, taps, mix_rms);
    return fit_model(run, mix, taps, mix_rms, range);
  });

  Results results = results_of_job(run, mix, stems, range);
  results.bytes_per_cell = working_bytes_per_cell(model, run.machine, mix.sr);
  const auto frames = interval_frames(range, mix.frames(), mix.sr);
  const double nine_before = nine_bare_transforms();
  // With more workers a render hands its stems to threads of its own.
  results.phases_by_clock = _c14_inner_worker_count(results.channels_at_once, run.machine) > 1;
  PhaseWatch watch(stems, !results.phases_by_clock,
                   results.channels_at_once * std::min(results.intervals_at_once, frames.size()));
  const StemMap est = measure.stage("allocate", [&] {
    const ChannelsJob job{
        .sr = mix.sr,
        .start = range.start,
        .stop = range.stop,
        .watch = [&watch](std::size_t done, std::size_t total) { watch.step(done, total); }};
    return render_channels(std::move(model), job, run.machine);
  });
  results.nine_transforms = 0.5 * (nine_before + nine_bare_transforms());
  take_phases(watch, frames, measure.costs().back().time.cpu, results);

  const AudioView delivered_mix = mix.audio.view().column_range(range.start, range.stop);
  const StemViews delivered_taps = column_range(views_of(taps), range.start, range.stop);
  DeliveredStems delivered = measure.stage("deliver", [&] {
    return _coordinated_float32_delivery(views_of(est), delivered_mix, kNullThreshold);
  });
  const auto files = measure.stage("write", [&] {
    return write_stems(*run.options.out, std::move(delivered), delivered_taps, mix.sr);
  });
  if (!run.options.no_report) {
    measure.stage("report", [&] { return make_report(run, mix, delivered_taps, est); });
  }
  results.null_peak = measure.stage(
      "verify", [&] { return levels(written_residual(files, delivered_mix, mix.sr).view()).peak; });
  results.stages = measure.costs();
  if (range.is_whole(mix.frames())) print_suggestion(mix);
  return results;
}

double positive_number(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(value > 0.0)) {
    throw std::invalid_argument("“" + text + "” is no number above 0");
  }
  return value;
}

InstructionSet instruction_set_of(const std::string& word) {
  const std::map<std::string, InstructionSet> sets = {{"baseline", InstructionSet::kBaseline},
                                                      {"avx2", InstructionSet::kAvx2},
                                                      {"avx512", InstructionSet::kAvx512}};
  const auto found = sets.find(word);
  if (found == sets.end() || found->second > best_instruction_set()) {
    throw std::invalid_argument("this processor has no instruction set “" + word + "”");
  }
  return found->second;
}

Arguments parse(const std::vector<std::string>& words) {
  Arguments arguments;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    const auto value = [&] {
      if (++i == words.size()) throw std::invalid_argument(word + " needs a value");
      return words[i];
    };
    if (word == "--no-report") {
      arguments.no_report = true;
    } else if (word == "--processors") {
      arguments.processors = static_cast<std::size_t>(std::ceil(positive_number(value())));
    } else if (word == "--excerpt") {
      arguments.excerpt = positive_number(value());
    } else if (word == "--kernels") {
      use_instruction_set(instruction_set_of(value()));
    } else if (word == "--json") {
      arguments.json = value();
    } else if (arguments.project.empty() && !word.starts_with("-")) {
      arguments.project = word;
    } else {
      throw std::invalid_argument("“" + word + "” is not understood");
    }
  }
  if (arguments.project.empty()) throw std::invalid_argument("the project is missing");
  return arguments;
}

Options options_of(const Arguments& arguments) {
  Options options;
  options.allocation = "candidate14";
  options.any_channels = true;
  options.project = arguments.project;
  options.no_report = arguments.no_report;
  return options;
}

void run(const Arguments& arguments) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> unread(std::tmpfile(), std::fclose);
  if (unread == nullptr) throw std::runtime_error("no temporary file can be made");
  OutputLines lines(unread.get());
  const CommandLine command_line("verdel-bench", entries_of(option_table()));
  Machine machine = system_machine();
  if (arguments.processors > 0) {
    machine.processors = [count = arguments.processors] { return count; };
  }
  Run run{.options = options_of(arguments),
          .command_line = command_line,
          .machine = machine,
          .stop = {},
          .lines = lines};
  apply_option_rules(run.options, command_line);
  resolve_paths(run.options, lines);
  if (arguments.excerpt > 0.0) run.options.excerpt_len = arguments.excerpt;
  const Results results = measure_render(run);
  print(results);
  if (!arguments.json.empty()) write_json(results, arguments.json);
}

}  // namespace
}  // namespace verdel::internal

int main(int argc, char** argv) {
  try {
    verdel::internal::run(verdel::internal::parse({argv + 1, argv + argc}));
    return EXIT_SUCCESS;
  } catch (const std::invalid_argument& misuse) {
    std::fprintf(stderr, "%sverdel-bench: %s\n", verdel::internal::kUsage, misuse.what());
    return 2;
  } catch (const verdel::internal::TooLarge& refusal) {
    std::fprintf(stderr, "verdel-bench: %s\n", refusal.what());
    return verdel::internal::kTooLarge;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "verdel-bench: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
