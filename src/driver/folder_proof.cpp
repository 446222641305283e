#include "driver/folder_proof.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "delivery/verification.hpp"
#include "inputs/audio_header.hpp"
#include "inputs/audio_loading.hpp"
#include "support/errors.hpp"
#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

/// The part of the mix that the stems are.
struct Part {
  std::size_t start = 0, frames = 0;
};

/// What the lines tell of a folder beside its figures.
struct Folder {
  std::vector<StemInput> stems;
  Part part;
  int sr = 0;
};

std::vector<StemInput> stems_of(const std::string& folder, const StopToken& stop) {
  auto stems = plan_stem_inputs(folder);
  std::erase_if(stems, [&](const StemInput& stem) { return is_null_residual(stem, stop); });
  if (stems.empty()) {
    throw ValueError("no stems in " + quoted_path(folder) + ". Pass the folder that holds them.");
  }
  return stems;
}

/// `has`: a number and what is counted.
std::string difference_text(const StemInput& stem, const std::string& has, std::size_t wanted) {
  return fmt::format("{}: {}, where the others have {}", quoted_path(stem.files.front()), has,
                     wanted);
}

std::size_t frames_of(const StemInput& stem, const AudioHeader& header, const StopToken& stop) {
  return header.frames ? *header.frames : load_audio_input(stem, stop).audio.columns();
}

/// The number of frames that most stems have; of numbers that are as frequent, the mix's or else
/// the first one's.
std::size_t usual_length(const std::vector<std::size_t>& lengths, std::size_t mix_frames) {
  const auto weight = [&](std::size_t length) {
    return std::pair(std::ranges::count(lengths, length), length == mix_frames);
  };
  return *std::ranges::max_element(lengths, {}, weight);
}

/// Refuses stems that are not like the mix or not of one length, and returns that length.
std::size_t common_length(const std::vector<StemInput>& stems, const LoadedAudio& mix,
                          const StopToken& stop) {
  std::vector<std::size_t> lengths;
  for (const StemInput& stem : stems) {
    const AudioHeader header = check_audio_input(stem, stop);
    if (header.sr != mix.sr) {
      throw ValueError(
          difference_text(stem, fmt::format("{} Hz", header.sr), static_cast<std::size_t>(mix.sr)));
    }
    if (header.channels != mix.audio.rows()) {
      throw ValueError(
          difference_text(stem, counted(header.channels, "channel"), mix.audio.rows()));
    }
    lengths.push_back(frames_of(stem, header, stop));
  }
  const std::size_t usual = usual_length(lengths, mix.audio.columns());
  std::string text;
  for (std::size_t i = 0; i < stems.size(); ++i) {
    if (lengths[i] == usual) continue;
    text += difference_text(stems[i], counted(lengths[i], "frame"), usual) + "\n";
  }
  if (text.empty()) return usual;
  throw ValueError(text +
                   "A file of another length is mostly left from an earlier render. Remove it, or "
                   "render into an empty folder.");
}

/// Where stems of so many frames begin in the mix.
std::size_t start_of(const VerifyOptions& options, const LoadedAudio& mix, std::size_t frames) {
  const std::size_t whole = mix.audio.columns();
  if (frames > whole) {
    throw ValueError(fmt::format("the stems are {} frames long, the mix only {}", frames, whole));
  }
  if (!options.excerpt_start) {
    if (frames == whole) return 0;
    throw ValueError(fmt::format(
        "the stems are {} frames long, the mix {}. If they are an excerpt of it, say where it "
        "begins: --excerpt-start SECONDS",
        frames, whole));
  }
  // Written so that a value that is not a number counts as 0; an excerpt ends with the mix at last.
  const double start = std::nearbyint(*options.excerpt_start * mix.sr);
  const std::size_t latest = whole - frames;
  if (!(start > 0.0)) return 0;
  return start < static_cast<double>(latest) ? static_cast<std::size_t>(start) : latest;
}

void print_text(const Folder& folder, const Proof& proof, OutputLines& lines) {
  lines.print(fmt::format("{} stems, {} frames from {}, {} Hz", folder.stems.size(),
                          folder.part.frames, folder.part.start, folder.sr));
  for (std::size_t channel = 0; channel < proof.channels.size(); ++channel) {
    const auto& [difference, worst] = proof.channels[channel];
    const std::size_t sample = folder.part.start + worst;
    lines.print(fmt::format("channel {}: peak {} dBFS at sample {} ({:.3f} s), rms {} dBFS",
                            channel + 1, one_decimal(difference.peak), sample,
                            static_cast<double>(sample) / folder.sr, one_decimal(difference.rms)));
  }
  lines.print(fmt::format("null residual: {} dBFS  {}", one_decimal(proof.peak),
                          proof.passed ? "PASS" : "FAIL"));
}

/// JSON has neither infinity nor "not a number": null stands for both.
std::string json_number(double value) {
  return std::isfinite(value) ? shortest_float64(value) : "null";
}

void print_json(const Folder& folder, const Proof& proof, const VerifyOptions& options,
                OutputLines& lines) {
  std::string channels;
  for (const auto& [difference, worst] : proof.channels) {
    channels += fmt::format(R"({}{{"peak_dbfs": {}, "rms_dbfs": {}, "worst_sample": {}}})",
                            channels.empty() ? "" : ", ", json_number(difference.peak),
                            json_number(difference.rms), folder.part.start + worst);
  }
  lines.print(fmt::format(
      R"({{"mix": {}, "stems": {}, "count": {}, "start": {}, "frames": {}, "sample_rate": {}, )"
      R"("threshold_dbfs": {}, "peak_dbfs": {}, "passed": {}, "channels": [{}]}})",
      json_string(*options.mix), json_string(*options.stems), folder.stems.size(),
      folder.part.start, folder.part.frames, folder.sr, json_number(options.threshold),
      json_number(proof.peak), proof.passed, channels));
}

std::string advice_on(const std::vector<StemInput>& surplus) {
  std::string files;
  for (const StemInput& stem : surplus) {
    for (const std::string& file : stem.files) {
      files.append(files.empty() ? "" : ", ").append(quoted_path(file));
    }
  }
  return "Without " + files +
         " the others do. Such a file is mostly left from an earlier render: remove it, or render "
         "into an empty folder.";
}

}  // namespace

void prove_folder(const VerifyOptions& options, OutputLines& lines, const StopToken& stop) {
  Folder folder{.stems = stems_of(*options.stems, stop), .part = {}};
  const LoadedAudio mix = load_audio_input(plan_mix_input(*options.mix), stop);
  folder.sr = mix.sr;
  folder.part.frames = common_length(folder.stems, mix, stop);
  folder.part.start = start_of(options, mix, folder.part.frames);

  const AudioView part =
      mix.audio.view().column_range(folder.part.start, folder.part.start + folder.part.frames);
  AudioArray residual = written_residual(folder.stems, part, mix.sr, stop);
  const Proof proof = prove(residual.view(), options.threshold);
  if (options.json) {
    print_json(folder, proof, options, lines);
  } else {
    print_text(folder, proof, lines);
  }
  if (proof.passed) return;
  const std::string failure = "the stems do not add up to the mix";
  const auto surplus =
      surplus_stems(folder.stems, std::move(residual), mix.sr, options.threshold, stop);
  throw RuntimeError(surplus.empty() ? failure : failure + "\n" + advice_on(surplus));
}

}  // namespace verdel::internal
