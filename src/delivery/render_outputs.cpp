#include "delivery/render_outputs.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <utility>
#include <vector>

#include "delivery/audio_file_writing.hpp"
#include "delivery/output_place.hpp"
#include "delivery/unfinished_file.hpp"
#include "inputs/path_text.hpp"
#include "signal/levels.hpp"
#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kNameWidth = 14;  // characters
// dBFS; half a float step below it is 2^-24, -144.5 dBFS, and above it 2^-23, -138.5 dBFS.
constexpr double kLoudestExactStem = 6.0;

StemView tap_of(const StemViews& taps, const std::string& name) {
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

/// Returns the level of the loudest sample of all.
double write_stems(const RenderOutputs& outputs, const std::vector<std::string>& files,
                   const StemMap& delivered, const LineSink& line, const StopToken& stop) {
  double loudest = -999.0;
  for (std::size_t stem = 0; stem < delivered.size(); ++stem) {
    const auto& [name, audio] = delivered[stem];
    write_file(files[stem], outputs.sr, audio.view(), stop);
    const Levels stem_levels = levels(audio.view());
    loudest = std::max(loudest, stem_levels.peak);
    line(fmt::format("stem  {} peak {:6.1f}  rms {:6.1f} dBFS   (tap {:6.1f})",
                     pad_right(name, kNameWidth), stem_levels.peak, stem_levels.rms,
                     levels(tap_of(outputs.taps, name)).rms));
  }
  return loudest;
}

}  // namespace

DeliveryVerdict write_render_outputs(const RenderOutputs& outputs, CoordinatedStems rendered,
                                     const LineSink& line, const StemReport& report,
                                     const StopToken& stop) {
  const auto path_of = [&](const std::string& name) { return join(outputs.out, name + ".wav"); };
  std::vector<StemInput> stems;
  std::vector<std::string> files;
  for (const std::string& name : rendered.names()) {
    files.push_back(path_of(name));
    stems.push_back({name, {files.back()}});
  }
  if (outputs.write_null) files.push_back(path_of(kNullResidualName));

  make_folder(outputs.out);
  sweep_unfinished_files(outputs.out, files);
  require_usable_place(outputs.out, files);

  const StageSink begin = outputs.begin ? outputs.begin : [](Stage) {};
  begin(Stage::kRounding);
  StemMap delivered = rendered.finish(stop);
  begin(Stage::kWriting);
  line("");
  const double loudest = write_stems(outputs, files, delivered, line, stop);
  if (report) {
    begin(Stage::kComparing);
    report(views_of(delivered));
  }
  delivered.clear();  // the proof needs nothing but the files
  begin(Stage::kProving);
  const auto residual = written_residual(stems, outputs.mix, outputs.sr, stop, outputs.storage);
  if (outputs.write_null) write_file(files.back(), outputs.sr, residual.view(), stop);
  Proof proof = prove(residual.view(), outputs.null_threshold);
  line("");
  line(fmt::format("null residual: {} dBFS  {}", one_decimal(proof.peak),
                   proof.passed ? "PASS" : "FAIL"));
  return {std::move(proof), loudest};
}

std::string shallow_null_text(const DeliveryVerdict& verdict, std::size_t start, int sr) {
  const Proof& proof = verdict.proof;
  const std::size_t sample = start + proof.channels[proof.worst_channel].worst;
  const std::string place = fmt::format(
      "{} dBFS are left of the mix at sample {} ({:.3f} s) of channel {}", one_decimal(proof.peak),
      sample, static_cast<double>(sample) / sr, proof.worst_channel + 1);
  const double excess = verdict.loudest_stem - kLoudestExactStem;
  if (excess > 0.0) {
    return fmt::format(
        "{}, because a stem peaks at {} dBFS: 32-bit floats above {} are too coarse. Turn the mix "
        "down by {} dB, so that no sample of a stem passes {} dBFS, and render again.",
        place, signed_one_decimal(verdict.loudest_stem), signed_one_decimal(kLoudestExactStem),
        one_decimal(std::ceil(excess * 10.0) / 10.0), signed_one_decimal(kLoudestExactStem));
  }
  return place +
         ", more than rounding leaves: a file does not hold what was written to it. Check "
         "the disk and render again.";
}

}  // namespace verdel::internal
