#include "results.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace verdel::internal {
namespace {

constexpr double kMebibyte = 1 << 20;

void print_stage(const StageCost& cost) {
  fmt::print("{:<18}{:>10.2f}{:>10.2f}{:>12.2f}{:>14.0f}\n", cost.name, cost.time.wall,
             cost.time.cpu, cost.time.system, static_cast<double>(cost.peak) / kMebibyte);
}

// The phases as parts of the stage above them.
void print_phases_of_run(const Results& results) {
  for (std::size_t phase = 0; phase < PhaseTimes::kNames.size(); ++phase) {
    fmt::print("  {:<16}{:>20.2f}\n", PhaseTimes::kNames[phase],
               results.first.seconds[phase] + results.repeated.seconds[phase]);
  }
}

void print_phase_costs(const Results& results) {
  const double nine = results.nine_transforms;
  const auto print_row = [&](const char* name, double first, double repeated) {
    fmt::print("{:<18}{:>10.2f}{:>10.2f}", name, 1e6 * first / results.first_units,
               first / results.first_units / nine);
    if (results.repeated_units > 0.0) {
      fmt::print("{:>12.2f}{:>10.2f}", 1e6 * repeated / results.repeated_units,
                 repeated / results.repeated_units / nine);
    }
    fmt::print("\n");
  };
  fmt::print("\n{:<18}{:>20}{:>22}\n", "allocator",
             fmt::format("first ({})", results.first.intervals),
             fmt::format("repeated ({})", results.repeated.intervals));
  fmt::print("{:<18}{:>10}{:>10}{:>12}{:>10}\n", "", "us", "x bare", "us", "x bare");
  for (std::size_t phase = 0; phase < PhaseTimes::kNames.size(); ++phase) {
    print_row(PhaseTimes::kNames[phase], results.first.seconds[phase],
              results.repeated.seconds[phase]);
  }
  print_row("sum", results.first.sum(), results.repeated.sum());
  fmt::print(
      "first, repeated: intervals on fresh scratch files, and on those of an interval before\n"
      "us: processor time per spectrum frame and stem\n"
      "x bare: over nine bare transforms of 2048 points, here {:.2f} us\n",
      1e6 * nine);
  if (results.phases_by_clock) {
    fmt::print("estimated: a render has several threads, so phases are told apart by the clock\n");
  }
}

std::string stage_json(const StageCost& cost) {
  return fmt::format(
      R"({{"name": "{}", "wall": {:.4f}, "cpu": {:.4f}, "system": {:.4f}, "before_bytes": {}, )"
      R"("peak_bytes": {}}})",
      cost.name, cost.time.wall, cost.time.cpu, cost.time.system, cost.before, cost.peak);
}

std::string phase_json(const Results& results, std::size_t phase) {
  return fmt::format(R"({{"name": "{}", "first_cpu": {:.4f}, "repeated_cpu": {:.4f}}})",
                     PhaseTimes::kNames[phase], results.first.seconds[phase],
                     results.repeated.seconds[phase]);
}

}  // namespace

StageCost Results::total() const {
  StageCost total{"total", {}, 0, 0};
  for (const StageCost& cost : stages) {
    total.time += cost.time;
    total.peak = std::max(total.peak, cost.peak);
  }
  return total;
}

const StageCost* Results::find(const std::string& stage) const {
  const auto found = std::ranges::find(stages, stage, &StageCost::name);
  return found == stages.end() ? nullptr : &*found;
}

double Results::allocator_multiple() const {
  return find("allocate")->time.cpu / (first_units + repeated_units) / nine_transforms;
}

std::optional<double> Results::report_seconds() const {
  const StageCost* const report = find("report");
  if (report == nullptr) return std::nullopt;
  return report->time.cpu / static_cast<double>(stems * channels) / (output_seconds / 60.0);
}

double Results::allocator_bytes() const {
  const StageCost& cost = *find("allocate");
  return std::max(0.0,
                  static_cast<double>(cost.peak) - static_cast<double>(cost.before) - result_bytes);
}

void print(const Results& results) {
  fmt::print("{:.1f} s of {:.1f} s, {} stems, {} channels, {} Hz, null {:.1f} dB\n",
             results.output_seconds, results.seconds, results.stems, results.channels, results.sr,
             results.null_peak);
  fmt::print("{} processors: {} channels at once, {} intervals of each; {} kernels\n\n",
             results.processors, results.channels_at_once, results.intervals_at_once,
             results.instruction_set);
  fmt::print("{:<18}{:>10}{:>10}{:>12}{:>14}\n", "stage", "wall, s", "cpu, s", "system, s",
             "memory, MiB");
  for (const StageCost& cost : results.stages) {
    print_stage(cost);
    if (cost.name == "allocate") print_phases_of_run(results);
  }
  print_stage(results.total());
  fmt::print("system: the part of cpu that is the system's\nmemory: peak of {}\n", memory_kind());
  print_phase_costs(results);
  fmt::print(
      "\nallocator: {:.2f} times nine bare transforms; memory {:.0f} MiB beyond its result, {:.1f} "
      "bytes per cell of a render's spectrum\n",
      results.allocator_multiple(), results.allocator_bytes() / kMebibyte, results.bytes_per_cell);
  if (const auto seconds = results.report_seconds()) {
    fmt::print("report: {:.3f} s of processor time per stem, channel and minute\n", *seconds);
  }
}

void write_json(const Results& results, const std::string& path) {
  std::vector<std::string> stages, phases;
  for (const StageCost& cost : results.stages) stages.push_back(stage_json(cost));
  stages.push_back(stage_json(results.total()));
  for (std::size_t i = 0; i < PhaseTimes::kNames.size(); ++i) {
    phases.push_back(phase_json(results, i));
  }
  std::ofstream file(path);
  file << fmt::format(
      R"({{"seconds": {}, "output_seconds": {}, "stems": {}, "channels": {}, "rate": {},
 "processors": {}, "channels_at_once": {}, "intervals_at_once": {},
 "stages": [{}],
 "phases": [{}],
 "first_intervals": {}, "repeated_intervals": {}, "first_units": {}, "repeated_units": {},
 "nine_transforms": {:.4g}, "allocator_multiple": {:.4f}, "allocator_bytes": {:.0f},
 "bytes_per_cell": {:.2f}, "report_seconds": {}, "null_peak": {:.2f}}}
)",
      results.seconds, results.output_seconds, results.stems, results.channels, results.sr,
      results.processors, results.channels_at_once, results.intervals_at_once,
      fmt::join(stages, ",\n  "), fmt::join(phases, ",\n  "), results.first.intervals,
      results.repeated.intervals, results.first_units, results.repeated_units,
      results.nine_transforms, results.allocator_multiple(), results.allocator_bytes(),
      results.bytes_per_cell,
      results.report_seconds() ? fmt::format("{:.4f}", *results.report_seconds()) : "null",
      results.null_peak);
  if (!file.flush()) throw std::runtime_error(path + " cannot be written");
}

}  // namespace verdel::internal
