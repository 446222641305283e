#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "allocation/c14_constants.hpp"
#include "allocation/interval_rendering.hpp"
#include "allocation/spectral_transform.hpp"
#include "delivery/audio_file_writing.hpp"
#include "delivery/contamination_report.hpp"
#include "delivery/coordinated_float32.hpp"
#include "delivery/verification.hpp"
#include "driver/channels.hpp"
#include "driver/input_stage.hpp"
#include "driver/model_stage.hpp"
#include "driver/option_rules.hpp"
#include "driver/option_table.hpp"
#include "excerpt/excerpt_suggestion.hpp"
#include "inputs/levels.hpp"
#include "measures.hpp"

// Renders a project as the engine does, stage by stage, and tells what each stage cost. The stems
// go to the project's output folder.
namespace verdel {
namespace {

constexpr double kNullThreshold = -140.0;  // dBFS

/// The first render alone is measured on so much of the song.
constexpr double kPhaseSeconds = 20.0;

struct StageCost {
  std::string name;
  Moment time;
  std::uint64_t peak = 0;  // bytes
};

class Measurement {
 public:
  /// Runs a stage and returns what it returns.
  template <class Stage>
  auto stage(const std::string& name, Stage run) {
    watch_.take_peak();
    const Moment begin = Moment::now();
    auto result = run();
    costs_.push_back({name, Moment::now() - begin, watch_.take_peak()});
    return result;
  }

  const StageCost& last() const { return costs_.back(); }
  void forget_last() { costs_.pop_back(); }

  void print_table() const {
    StageCost total{"total", {}, 0};
    fmt::print("{:<12}{:>10}{:>10}{:>14}\n", "stage", "wall, s", "cpu, s", "memory, MiB");
    for (const StageCost& cost : costs_) {
      print_row(cost);
      total.time.wall += cost.time.wall;
      total.time.cpu += cost.time.cpu;
      total.peak = std::max(total.peak, cost.peak);
    }
    print_row(total);
  }

 private:
  static void print_row(const StageCost& cost) {
    fmt::print("{:<12}{:>10.2f}{:>10.2f}{:>14.0f}\n", cost.name, cost.time.wall, cost.time.cpu,
               static_cast<double>(cost.peak) / (1 << 20));
  }

  MemoryWatch watch_;
  std::vector<StageCost> costs_;
};

/// Spectrum frames that the allocator works on for a whole song, context of the intervals included.
std::size_t frames_processed(std::size_t samples, int sr) {
  if (static_cast<double>(samples) < std::nearbyint(C14_INTERVAL_MIN_SECONDS * sr)) {
    return spectrum_frames(samples);
  }
  const auto length = static_cast<std::size_t>(std::nearbyint(C14_INTERVAL_SECONDS * sr));
  const std::size_t intervals = (samples + length - 1) / length;
  std::size_t frames = 0;
  for (std::size_t i = 0; i < intervals; ++i) {
    const std::size_t first = i * samples / intervals / C14_HOP;
    const std::size_t stop = ((i + 1) * samples / intervals + C14_HOP - 1) / C14_HOP * C14_HOP;
    const std::size_t left = first - std::min(first, C14_CONTEXT_BEFORE_HOPS);
    const std::size_t right = std::min(samples, stop + C14_CONTEXT_AFTER_HOPS * C14_HOP);
    frames += spectrum_frames(right - left * C14_HOP);
  }
  return frames;
}

/// One render of one channel on one thread.
struct PhaseCosts {
  static constexpr std::array<const char*, 7> kNames = {
      "residual's spectrum", "scoring", "endpoints", "projection", "history", "gate",
      "blend and checks"};
  std::size_t samples = 0, stems = 0;
  std::array<double, kNames.size()> cpu_seconds{};
  double working_bytes = 0.0;  ///< anonymous memory at the peak, the result aside
};

/// Renders the beginning of the first channel; its progress tells the phases apart.
PhaseCosts measure_phases(const Model& model, const Machine& machine, int sr) {
  PhaseCosts costs;
  costs.samples =
      std::min(model.residual.columns(), static_cast<std::size_t>(std::lround(kPhaseSeconds * sr)));
  costs.stems = model.sources.size();
  ChannelJob job{.source_models = {},
                 .residual = model.residual.row(0).first(costs.samples),
                 .sr = sr,
                 .start = 0,
                 .stop = costs.samples,
                 .progress = {}};
  for (const auto& source : model.sources) {
    job.source_models.push_back(source.audio.row(0).first(costs.samples));
  }
  double last = 0.0;
  const auto credit = [&](std::size_t phase) {
    const double now = Moment::now().cpu;
    costs.cpu_seconds[phase] += now - last;
    last = now;
  };
  job.progress = [&](std::size_t done, std::size_t) {
    credit(done == 0 ? 0 : 1 + (done - 1) / costs.stems);
  };

  release_freed_memory();
  MemoryWatch watch;
  const auto before = static_cast<double>(watch.take_peak());
  last = Moment::now().cpu;
  const auto rendered = render_transient_release_tail_channel(job, machine);
  credit(PhaseCosts::kNames.size() - 1);
  costs.working_bytes = static_cast<double>(watch.take_peak()) - before -
                        static_cast<double>(rendered.size() * sizeof(double));
  return costs;
}

void print_phases(const PhaseCosts& costs, int sr) {
  const double nine = nine_bare_transforms();
  const std::size_t frames = spectrum_frames(costs.samples);
  const auto units = static_cast<double>(frames * costs.stems);
  const auto print_row = [&](const char* name, double spent) {
    fmt::print("{:<20}{:>10.2f}{:>10.2f}\n", name, 1e6 * spent / units, spent / units / nine);
  };
  fmt::print("\nphases, {:.1f} s of the first channel on one thread\n",
             static_cast<double>(costs.samples) / sr);
  fmt::print("{:<20}{:>10}{:>10}\n", "", "us", "x bare");
  for (std::size_t phase = 0; phase < PhaseCosts::kNames.size(); ++phase) {
    print_row(PhaseCosts::kNames[phase], costs.cpu_seconds[phase]);
  }
  print_row("sum", std::reduce(costs.cpu_seconds.begin(), costs.cpu_seconds.end()));
  fmt::print(
      "us: processor time per spectrum frame and stem\n"
      "x bare: over nine bare transforms of 2048 points, here {:.2f} us\n"
      "memory: {:.1f} bytes per cell of the spectrum, the result and mapped files aside\n",
      1e6 * nine, costs.working_bytes / static_cast<double>(frames * C14_BINS));
}

/// Writes the stems and takes the levels that the engine prints beside them.
std::vector<WrittenStem> write_stems(const std::string& folder, DeliveredStems delivered,
                                     const StemMap& taps, int sr) {
  std::filesystem::create_directories(folder);
  std::vector<WrittenStem> files;
  for (std::size_t stem = 0; stem < taps.size(); ++stem) {
    const auto [name, audio] = std::move(delivered[stem]);
    files.push_back({name, folder + "/" + name + ".wav"});
    AudioFileWriter writer(files.back().path,
                           {.sr = sr, .channels = audio.rows(), .frames = audio.columns()});
    writer.write(audio.view());
    writer.commit();
    levels(audio.view());
    levels(taps[stem].audio.view());
  }
  return files;
}

void print_suggestion(Measurement& measure, const Mix& mix) {
  release_freed_memory();
  const std::uint64_t before = anonymous_memory();
  const auto found =
      measure.stage("suggestion", [&] { return suggest_excerpt(mix.audio.view(), mix.sr); });
  fmt::print(
      "suggestion: {:.2f} s of processor time, {:.0f} MiB beyond the mix ({:.2f} bpm)\n",
      measure.last().time.cpu,
      static_cast<double>(measure.last().peak - std::min(before, measure.last().peak)) / (1 << 20),
      found.bpm);
  measure.forget_last();  // a render does not make one
}

/// The report as the engine makes it; returns how many lines it has.
std::size_t make_report(const Run& run, const Mix& mix, const StemMap& taps, const StemMap& est) {
  std::size_t lines = 0;
  report({.est = views_of(est),
          .taps = views_of(taps),
          .sr = mix.sr,
          .n_bands = static_cast<std::size_t>(*run.options.bands),
          .nfft = std::bit_ceil(mix.frames() + 1),
          .workers = run.machine.processors()},
         [&lines](std::string_view) { ++lines; });
  return lines;
}

void measure_render(Run& run) {
  Measurement measure;
  Mix mix = measure.stage("load mix", [&] { return read_mix(run); });
  print_suggestion(measure, mix);
  StemMap taps = measure.stage("load taps", [&] { return read_taps(run, mix); });
  measure.stage("align", [&] { return align_taps(run, mix, taps); });
  Model model = measure.stage("model", [&] {
    const double mix_rms = levels(mix.audio.view()).rms;
    print_raw_difference(run, mix, taps, mix_rms);
    return fit_model(run, mix, taps, mix_rms);
  });
  print_phases(measure_phases(model, run.machine, mix.sr), mix.sr);

  const std::size_t stems = taps.size();
  const double nine_before = nine_bare_transforms();
  const StemMap est = measure.stage("allocate", [&] {
    return render_channels(run, std::move(model), mix.sr, {.start = 0, .stop = mix.frames()});
  });
  const double nine = 0.5 * (nine_before + nine_bare_transforms());
  const double allocator = measure.last().time.cpu;

  DeliveredStems delivered = measure.stage("deliver", [&] {
    return _coordinated_float32_delivery(views_of(est), mix.audio.view(), kNullThreshold);
  });
  const auto files = measure.stage(
      "write", [&] { return write_stems(*run.options.out, std::move(delivered), taps, mix.sr); });
  if (!run.options.no_report) {
    measure.stage("report", [&] { return make_report(run, mix, taps, est); });
  }
  const double null_peak = measure.stage("verify", [&] {
    return levels(written_residual(files, mix.audio.view(), mix.sr).view()).peak;
  });

  const auto units =
      static_cast<double>(frames_processed(mix.frames(), mix.sr) * stems * mix.channels());
  fmt::print(
      "\nwhole render: {:.1f} s, {} stems, {} channels, {} Hz, {} processors, null {:.1f} dB\n",
      static_cast<double>(mix.frames()) / mix.sr, stems, mix.channels(), mix.sr,
      run.machine.processors(), null_peak);
  measure.print_table();
  fmt::print("memory: peak of {}\n", memory_kind());
  fmt::print("allocator: {:.2f} times nine bare transforms ({:.2f} us)\n", allocator / units / nine,
             1e6 * nine);
}

Options options_of(const std::vector<std::string>& arguments) {
  Options options;
  options.allocation = "candidate14";
  options.any_channels = true;
  for (const std::string& word : arguments) {
    if (word == "--no-report") {
      options.no_report = true;
    } else {
      options.project = word;
    }
  }
  return options;
}

}  // namespace
}  // namespace verdel

int main(int argc, char** argv) {
  using namespace verdel;
  if (argc < 2) {
    std::fputs("usage: verdel-bench PROJECT [--no-report]\n", stderr);
    return 2;
  }
  try {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> unread(std::tmpfile(), std::fclose);
    if (unread == nullptr) throw std::runtime_error("no temporary file can be made");
    OutputLines lines(unread.get());
    const CommandLine command_line("verdel-bench", entries_of(option_table()));
    const Machine machine = system_machine();
    Run run{.options = options_of({argv + 1, argv + argc}),
            .command_line = command_line,
            .machine = machine,
            .stop = {},
            .lines = lines};
    apply_option_rules(run.options, command_line);
    resolve_paths(run.options, lines);
    measure_render(run);
    return EXIT_SUCCESS;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "verdel-bench: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
