#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "allocation/interval_rendering.hpp"
#include "chain/hear_chain.hpp"
#include "driver/input_stage.hpp"
#include "driver/option_rules.hpp"
#include "driver/option_table.hpp"
#include "driver/run.hpp"
#include "excerpt/excerpt_suggestion.hpp"
#include "measures.hpp"
#include "render/deliver_song.hpp"
#include "results.hpp"
#include "signal/instruction_sets.hpp"
#include "support/errors.hpp"

// Renders a project as the engine does, stage by stage, and tells what each stage cost. The stems
// go to the project's output folder.
namespace verdel::internal {
namespace {

constexpr const char* kUsage =
    "usage: verdel-bench PROJECT [--hear-chain] [--no-report] [--processors N] [--memory GIB]\n"
    "                    [--excerpt SECONDS] [--kernels baseline|avx2|avx512] [--json FILE]\n"
    "  --hear-chain: hears the master chain first, a row for each of its phases\n"
    "  --processors, --memory: play a machine with so many, and with so much\n"
    "  --excerpt: from the middle of the song\n"
    "  --kernels: the instruction set of the engine's own kernels; the best one without it\n"
    "Exit status: 3 if the machine is too small for the render.\n";
constexpr int kTooLarge = 3;

struct Arguments {
  std::string project, json;
  bool chain = false, no_report = false;
  std::size_t processors = 0;  // 0: as many as there are
  double memory = 0.0;         // GiB; 0: as much as there is
  double excerpt = 0.0;        // s; 0: the whole song
};

/// The engine's own check refused the render before a tap was opened.
class TooLarge : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Keeps what each stage of a run has cost, from its beginning to end().
class Measurement {
 public:
  void begin(const std::string& name) {
    name_ = name;
    before_ = anonymous_memory();
    watch_.take_peak();
    begin_ = Moment::now();
  }
  void end() {
    if (name_.empty()) return;
    costs_.push_back({name_, Moment::now() - begin_, before_, watch_.take_peak()});
    name_.clear();
  }
  /// Runs a stage and returns what it returns.
  template <class Function>
  auto stage(const std::string& name, Function run) {
    begin(name);
    auto result = run();
    end();
    return result;
  }

  const std::vector<StageCost>& costs() const { return costs_; }

 private:
  MemoryWatch watch_;
  std::vector<StageCost> costs_;
  std::string name_;  // of the stage that runs; empty: none
  std::uint64_t before_ = 0;
  Moment begin_{};
};

void print_suggestion(const Mix& mix) {
  const Moment begin = Moment::now();
  const auto found = suggest_excerpt(mix.audio.view(), mix.sr);
  fmt::print("suggestion, on the mix alone: {:.2f} s of processor time ({:.2f} bpm)\n\n",
             (Moment::now() - begin).cpu, found.bpm);
}

Results results_of_job(const Run& run, const Mix& mix, std::size_t stems, const SampleSpan& range) {
  Results results;
  results.seconds = static_cast<double>(mix.frames()) / mix.sr;
  results.output_seconds = static_cast<double>(range.length()) / mix.sr;
  results.stems = stems;
  results.channels = mix.channels();
  results.sr = mix.sr;
  results.processors = run.machine.processors();
  results.instruction_set = name_of(instruction_set());
  results.units = static_cast<double>(
      stems * frames_to_render(range, mix.frames(), stems, mix.channels(), run.machine));
  results.result_bytes =
      static_cast<double>(stems * mix.channels() * range.length() * sizeof(float));
  return results;
}

const char* row_of(Stage stage) {
  switch (stage) {
    case Stage::kAligning:
      return "align";
    case Stage::kAllocating:
      return "allocate";
    case Stage::kRounding:
      return "deliver";
    case Stage::kWriting:
      return "write";
    case Stage::kComparing:
      return "report";
    case Stage::kProving:
      return "verify";
    default:
      return "model";
  }
}

/// Measures the stages of a render, and the allocator against its bare transforms.
class MeasuredSong : public SongObserver {
 public:
  MeasuredSong(Measurement& measure, Results& results) : measure_(measure), results_(results) {}

  void begin(Stage stage) override {
    if (stage == Stage::kFitting) return;  // it has begun with the levels in front of it
    measure_.end();
    measure_.begin(row_of(stage));
  }
  void aligned(const std::vector<AppliedLag>&) override { begin(Stage::kReadingMix); }
  void fitted(const Model&) override {
    measure_.end();
    nine_before_ = nine_bare_transforms();
  }

  /// To be called when the allocation has ended.
  void take_allocation() {
    measure_.end();
    results_.nine_transforms = 0.5 * (nine_before_ + nine_bare_transforms());
  }

 private:
  Measurement& measure_;
  Results& results_;
  double nine_before_ = 0.0;
};

/// Plays the taps through what the master chain did. Returns whether they stand in line with it.
bool measure_chain(const Run& run, const Mix& mix, StemMap& taps, Measurement& measure) {
  ThreadPool pool(run.machine.processors(), "verdel-chain");
  std::string running;
  const ChainJob job{.mix = mix.audio.view(),
                     .sr = mix.sr,
                     .pool = &pool,
                     .stop = run.stop,
                     .progress = [&](std::string_view phase, std::size_t, std::size_t) {
                       if (phase == running) return;
                       measure.end();
                       measure.begin("chain: " + (running = phase));
                     }};
  const bool lined_up = hear_chain(job, taps).lined_up;
  measure.end();
  return lined_up;
}

Results measure_render(Run& run, bool chain) {
  Measurement measure;
  Mix mix = measure.stage("load mix", [&] { return read_mix(run); });
  const double seconds = static_cast<double>(mix.frames()) / mix.sr;
  run.options.excerpt_start = 0.5 * (seconds - run.options.excerpt_len.value_or(seconds));
  const std::vector<StemInput> plan = plan_stem_inputs(*run.options.taps);
  try {
    check_preflight(run, mix, plan.size());
  } catch (const ValueError& refusal) {
    throw TooLarge(refusal.what());
  }
  StemMap taps = measure.stage("load taps", [&] { return read_taps(run, mix, plan); });
  const bool lined_up = chain && measure_chain(run, mix, taps, measure);
  const SongJob job{.mix = mix.audio.view(),
                    .sr = mix.sr,
                    .range = choose_output_range(run, mix),
                    .align = !lined_up,
                    .tell_levels = true,
                    .storage = run.storage};
  Results results = results_of_job(run, mix, plan.size(), job.range);
  MeasuredSong song(measure, results);
  CoordinatedStems stems = render_song(job, taps, run.machine, song);
  song.take_allocation();

  const SongFiles files{.out = *run.options.out,
                        .report = !run.options.no_report,
                        .workers = run.machine.processors()};
  const auto verdict = deliver_song(
      job, taps, std::move(stems), files, [](std::string_view) {}, song, run.stop);
  measure.end();
  results.null_peak = verdict.proof.peak;
  results.stages = measure.costs();
  if (job.range.length() == mix.frames()) print_suggestion(mix);
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
    if (word == "--hear-chain") {
      arguments.chain = true;
    } else if (word == "--no-report") {
      arguments.no_report = true;
    } else if (word == "--memory") {
      arguments.memory = positive_number(value());
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
  // With it comes the engine's own refusal of what is too large; a machine that is played is to be
  // tried.
  if (arguments.memory == 0.0) options.allocation = "candidate14";
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
  if (arguments.memory > 0.0) {
    const auto bytes = static_cast<std::uint64_t>(arguments.memory * 0x1p30);
    machine.physical_memory = [bytes] { return bytes; };
  }
  Run run{.options = options_of(arguments),
          .command_line = command_line,
          .machine = machine,
          .stop = {},
          .lines = lines,
          .storage = song_storage(machine)};
  apply_option_rules(run.options, command_line);
  resolve_paths(run.options, lines);
  if (arguments.excerpt > 0.0) run.options.excerpt_len = arguments.excerpt;
  const Results results = measure_render(run, arguments.chain);
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
