#include "driver/song_lines.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "support/number_text.hpp"

namespace verdel::internal {

SongLines::SongLines(const Run& run, std::size_t channels, std::vector<std::string> stem_names)
    : run_(run),
      progress_(run.lines, run.options.progress_json),
      channels_(channels),
      stem_names_(std::move(stem_names)) {}

void SongLines::begin(Stage stage) {
  if (stage == Stage::kFitting) print_model_lines();
  run_.lines.stage(name_of(stage));
  if (stage == Stage::kFitting) progress_.emit_progress("render", 0, channels_ + 1);
}

void SongLines::aligned(const std::vector<AppliedLag>& lags) {
  lags_ = lags;
  for (const AppliedLag& moved : lags) run_.lines.print(alignment_line(moved.name, moved.lag));
}

void SongLines::raw_difference(double decibels) {
  run_.lines.print(
      fmt::format("raw difference (taps summed vs mix): {} dB", signed_one_decimal(decibels)));
  run_.lines.print("");
}

void SongLines::print_model_lines() const {
  const Options& options = run_.options;
  run_.lines.print(
      fmt::format("single-band shared gain: {} ms measurement, {} ms smoothing; transient "
                  "release-tail allocation",
                  general(options.gain_window), general(*options.gain_smooth)));
  if (options.low_resolution.empty()) return;
  std::vector<std::string> chosen = stem_names_;
  std::erase_if(chosen, [&](const std::string& name) {
    return std::ranges::find(options.low_resolution, name) == options.low_resolution.end();
  });
  run_.lines.print(fmt::format("32-band allocation: {}", fmt::join(chosen, ", ")));
}

void SongLines::left_to_allocate(double decibels) {
  run_.lines.print(
      fmt::format("after single-band gain: {} dB left to allocate", signed_one_decimal(decibels)));
}

void SongLines::progress(std::size_t done, std::size_t total) {
  // The fitted model was the first unit of the count.
  progress_.emit_progress("render", 1 + done, 1 + total);
  run_.lines.stage(name_of(Stage::kAllocating),
                   static_cast<double>(done) / static_cast<double>(total));
}

std::string_view name_of(Stage stage) {
  switch (stage) {
    case Stage::kReadingMix:
      return "reading the mix";
    case Stage::kReadingTaps:
      return "reading the taps";
    case Stage::kAligning:
      return "aligning the taps";
    case Stage::kFitting:
      return "fitting the shared gain";
    case Stage::kAllocating:
      return "rendering";
    case Stage::kRounding:
    case Stage::kWriting:
      return "writing the stems";
    case Stage::kComparing:
      return "comparing stems and taps";
    case Stage::kProving:
      return "proving the files";
  }
  return {};
}

}  // namespace verdel::internal
