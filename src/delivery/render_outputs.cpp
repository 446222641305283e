#include "delivery/render_outputs.hpp"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "delivery/audio_file_writing.hpp"
#include "delivery/coordinated_float32.hpp"
#include "delivery/unfinished_file.hpp"
#include "delivery/verification.hpp"
#include "inputs/path_text.hpp"
#include "signal/levels.hpp"
#include "support/errors.hpp"
#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kNameWidth = 14;  // characters

void make_folder(const std::string& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (!error && !std::filesystem::is_directory(folder, error) && !error) {
    error = std::make_error_code(std::errc::not_a_directory);
  }
  if (error) {
    throw OSError("cannot make the output folder " + quoted_path(folder), error.value());
  }
}

// A file in the way is replaced when the new one is complete; anything else is not ours to remove,
// and shall not be found in the middle of the delivery.
void require_replaceable(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) return;
  const std::string what = "cannot write " + quoted_path(path);
  if (S_ISDIR(status.st_mode)) throw OSError(what, EISDIR);
  throw OSError(what + ": what stands there is not a regular file");
}

AudioView tap_of(const StemViews& taps, const std::string& name) {
  const auto tap =
      std::find_if(taps.begin(), taps.end(), [&](const auto& entry) { return entry.name == name; });
  assert(tap != taps.end());
  return tap->audio;
}

template <class Sample>
void write_file(const std::string& path, int sr, RowsView<const Sample> audio,
                const StopToken& stop) {
  AudioFileWriter writer(path, {.sr = sr, .channels = audio.rows(), .frames = audio.columns()});
  writer.write(audio, stop);
  writer.commit();
}

void write_stems(const RenderOutputs& outputs, const std::vector<WrittenStem>& files,
                 DeliveredStems delivered, const LineSink& line, const StopToken& stop) {
  for (std::size_t stem = 0; stem < delivered.size(); ++stem) {
    // Moved out, so that a stem's memory is free again as soon as it is written.
    const auto [name, audio] = std::move(delivered[stem]);
    write_file(files[stem].path, outputs.sr, audio.view(), stop);
    const Levels stem_levels = levels(audio.view());
    line(fmt::format("stem  {} peak {:6.1f}  rms {:6.1f} dBFS   (tap {:6.1f})",
                     pad_right(name, kNameWidth), stem_levels.peak, stem_levels.rms,
                     levels(tap_of(outputs.taps, name)).rms));
  }
}

}  // namespace

DeliveryVerdict write_render_outputs(const RenderOutputs& outputs, const LineSink& line,
                                     const std::function<void()>& report, const StopToken& stop) {
  std::vector<WrittenStem> files;
  for (const auto& stem : outputs.est) {
    files.push_back({stem.name, join(outputs.out, stem.name + ".wav")});
  }
  const std::string null_file = join(outputs.out, "_NULL_RESIDUAL.wav");

  make_folder(outputs.out);
  sweep_unfinished_files(outputs.out);
  for (const auto& file : files) require_replaceable(file.path);
  if (outputs.write_null) require_replaceable(null_file);

  const StageSink begin = outputs.begin ? outputs.begin : [](Stage) {};
  begin(Stage::kRounding);
  DeliveredStems delivered =
      _coordinated_float32_delivery(outputs.est, outputs.mix, outputs.null_threshold, stop);
  begin(Stage::kWriting);
  line("");
  write_stems(outputs, files, std::move(delivered), line, stop);
  if (report) {
    begin(Stage::kComparing);
    report();
  }
  begin(Stage::kProving);
  const auto residual = written_residual(files, outputs.mix, outputs.sr, stop);
  if (outputs.write_null) write_file(null_file, outputs.sr, residual.view(), stop);
  const double null_peak = levels(residual.view()).peak;
  const bool passed = null_peak < outputs.null_threshold;
  line("");
  line(fmt::format("null residual: {} dBFS  {}", one_decimal(null_peak), passed ? "PASS" : "FAIL"));
  return {null_peak, passed};
}

}  // namespace verdel::internal
