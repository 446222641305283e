#pragma once

#include <string>
#include <vector>

#include "driver/run_context.hpp"
#include "render/render_song.hpp"

namespace verdel::internal {

/// Prints the lines of a render as it gets on: moved taps, levels, progress where the run was asked
/// for it, and the stages for a person at a terminal.
class SongLines : public SongObserver {
 public:
  SongLines(const Run& run, std::size_t channels, std::vector<std::string> stem_names);

  void begin(Stage stage) override;
  void aligned(const std::vector<AppliedLag>& lags) override;
  void raw_difference(double decibels) override;
  void left_to_allocate(double decibels) override;
  void progress(std::size_t done, std::size_t total) override;

  /// The taps that have been moved so far.
  const std::vector<AppliedLag>& lags() const { return lags_; }
  /// The allocation has ended.
  void finalize() const { progress_.emit_progress("finalize", 0, 1); }

 private:
  void print_model_lines() const;

  const Run& run_;
  ProgressLines progress_;
  std::size_t channels_;
  std::vector<std::string> stem_names_;
  std::vector<AppliedLag> lags_;
};

/// What a person reads of a stage.
std::string_view name_of(Stage stage);

}  // namespace verdel::internal
