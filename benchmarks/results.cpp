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

std::string stage_json(const StageCost& cost) {
  return fmt::format(
      R"({{"name": "{}", "wall": {:.4f}, "cpu": {:.4f}, "system": {:.4f}, "before_bytes": {}, )"
      R"("peak_bytes": {}}})",
      cost.name, cost.time.wall, cost.time.cpu, cost.time.system, cost.before, cost.peak);
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
  return find("allocate")->time.cpu / units / nine_transforms;
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
  fmt::print("{} processors, {} kernels\n\n", results.processors, results.instruction_set);
  fmt::print("{:<18}{:>10}{:>10}{:>12}{:>14}\n", "stage", "wall, s", "cpu, s", "system, s",
             "memory, MiB");
  for (const StageCost& cost : results.stages) print_stage(cost);
  print_stage(results.total());
  fmt::print("system: the part of cpu that is the system's\nmemory: peak of {}\n", memory_kind());
  fmt::print(
      "\nallocator: {:.2f} us of processor time per spectrum frame and stem, {:.2f} times nine "
      "bare "
      "transforms of 2048 points; memory {:.0f} MiB beyond its result\n",
      1e6 * results.allocator_multiple() * results.nine_transforms, results.allocator_multiple(),
      results.allocator_bytes() / kMebibyte);
  if (const auto seconds = results.report_seconds()) {
    fmt::print("report: {:.3f} s of processor time per stem, channel and minute\n", *seconds);
  }
}

void write_json(const Results& results, const std::string& path) {
  std::vector<std::string> stages;
  for (const StageCost& cost : results.stages) stages.push_back(stage_json(cost));
  stages.push_back(stage_json(results.total()));
  std::ofstream file(path);
  file << fmt::format(
      R"({{"seconds": {}, "output_seconds": {}, "stems": {}, "channels": {}, "rate": {},
 "processors": {},
 "stages": [{}],
 "units": {}, "nine_transforms": {:.4g}, "allocator_multiple": {:.4f}, "allocator_bytes": {:.0f},
 "report_seconds": {}, "null_peak": {:.2f}}}
)",
      results.seconds, results.output_seconds, results.stems, results.channels, results.sr,
      results.processors, fmt::join(stages, ",\n  "), results.units, results.nine_transforms,
      results.allocator_multiple(), results.allocator_bytes(),
      results.report_seconds() ? fmt::format("{:.4f}", *results.report_seconds()) : "null",
      results.null_peak);
  if (!file.flush()) throw std::runtime_error(path + " cannot be written");
}

}  // namespace verdel::internal
