#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "measures.hpp"

/// What a measured render was and what it cost, as tables for people and as JSON for programs.
namespace verdel::internal {

struct StageCost {
  std::string name;
  Moment time;
  std::uint64_t before = 0, peak = 0;  ///< bytes when the stage began, and at most during it
};

struct Results {
  // The job.
  double seconds = 0.0;                 ///< of the song
  double output_seconds = 0.0;          ///< of what was delivered of it
  std::size_t stems = 0, channels = 0;  ///< counts
  int sr = 0;                           ///< Hz
  std::size_t processors = 0;           ///< as the engine was told
  std::string instruction_set;          ///< of the engine's own kernels

  // What it cost.
  std::vector<StageCost> stages;  ///< in the order of the run
  double units = 0.0;             ///< spectrum frames of the allocator times stems
  double nine_transforms = 0.0;   ///< s; see nine_bare_transforms()
  double result_bytes = 0.0;      ///< new memory for the stems that the allocator returns
  double null_peak = 0.0;         ///< dBFS

  StageCost total() const;
  const StageCost* find(const std::string& stage) const;
  /// The allocator's processor time over nine bare transforms a frame and stem.
  double allocator_multiple() const;
  /// Processor seconds of the report per stem, channel and minute; nothing without a report.
  std::optional<double> report_seconds() const;
  /// Memory that the allocator took beyond what it found and what it returned, bytes.
  double allocator_bytes() const;
};

void print(const Results& results);
/// Throws std::runtime_error if the file cannot be written.
void write_json(const Results& results, const std::string& path);

}  // namespace verdel::internal
