#include "driver/folder_proof.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "delivery/verification.hpp"
#include "driver/delivered_folder.hpp"
#include "inputs/audio_header.hpp"
#include "inputs/audio_loading.hpp"
#include "inputs/path_text.hpp"
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
  std::optional<Manifest> manifest = {};  ///< its hashes hold
  bool exact = false;                     ///< where there is one: the sum is its mix, bit for bit
};

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

bool is_silence(AudioView audio) {
  for (std::size_t channel = 0; channel < audio.rows(); ++channel) {
    if (std::ranges::any_of(audio.row(channel), [](double x) { return x != 0.0; })) return false;
  }
  return true;
}

/// Whether the stems are the mix bit for bit: that of their own folder where it was delivered, or
/// else the one at hand, whose residual that is.
bool sums_exactly(const VerifyOptions& options, const Folder& folder, AudioView residual,
                  const StopToken& stop) {
  if (!folder.manifest->mix) return is_silence(residual);
  const StemInput delivered{"mix", {join(*options.stems, folder.manifest->mix->file)}};
  const LoadedAudio mix = load_audio_input(delivered, stop);
  return mix.audio.columns() == folder.part.frames &&
         is_silence(written_residual(folder.stems, mix.audio.view(), mix.sr, stop).view());
}

/// A folder keeps what its manifest promises, whatever the threshold.
bool keeps_promise(const Folder& folder) {
  return !folder.manifest || !folder.manifest->sums_exactly || folder.exact;
}

void require_promised_sum(const VerifyOptions& options, const Folder& folder) {
  if (keeps_promise(folder)) return;
  throw RuntimeError("the manifest of " + quoted_path(*options.stems) +
                     " promises stems that sum to the mix exactly, and they do not: this is "
                     "another mix, or one of more bits");
}

void print_manifest(const Folder& folder, OutputLines& lines) {
  if (!folder.manifest) return;
  const std::size_t files = folder.stems.size() + (folder.manifest->mix ? 1 : 0);
  lines.print(fmt::format("manifest: {}, as delivered", counted(files, "file")));
  if (!folder.exact) return;
  lines.print(folder.manifest->mix
                  ? "sums to the mix exactly, as rounded to " + folder.manifest->mix->file
                  : "sums to the mix exactly");
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

/// The key of a folder that has a manifest; nothing for others.
std::string manifest_json(const Folder& folder) {
  if (!folder.manifest) return {};
  return fmt::format(R"(, "manifest": {{"hashes": true, "sums_exactly": {}}})", folder.exact);
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
      R"("threshold_dbfs": {}, "peak_dbfs": {}, "passed": {}, "channels": [{}]{}}})",
      json_string(*options.mix), json_string(*options.stems), folder.stems.size(),
      folder.part.start, folder.part.frames, folder.sr, json_number(options.threshold),
      json_number(proof.peak), proof.passed && keeps_promise(folder), channels,
      manifest_json(folder)));
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
  auto [stems, manifest] = delivered_folder(*options.stems, stop);
  if (manifest) require_hashes(*options.stems, *manifest, stop);
  Folder folder{.stems = std::move(stems), .part = {}, .manifest = std::move(manifest)};
  const LoadedAudio mix = load_audio_input(plan_mix_input(*options.mix), stop);
  folder.sr = mix.sr;
  folder.part.frames = common_length(folder.stems, mix, stop);
  folder.part.start = start_of(options, mix, folder.part.frames);

  const AudioView part =
      mix.audio.view().column_range(folder.part.start, folder.part.start + folder.part.frames);
  AudioArray residual = written_residual(folder.stems, part, mix.sr, stop);
  const Proof proof = prove(residual.view(), options.threshold);
  if (folder.manifest) folder.exact = sums_exactly(options, folder, residual.view(), stop);
  if (options.json) {
    print_json(folder, proof, options, lines);
  } else {
    print_text(folder, proof, lines);
    print_manifest(folder, lines);
  }
  if (proof.passed) return require_promised_sum(options, folder);
  std::string failure = "the stems do not add up to the mix";
  if (folder.exact && folder.manifest->mix) {
    throw RuntimeError(failure + "\nThey do add up to " +
                       quoted_path(join(*options.stems, folder.manifest->mix->file)) +
                       ", the mix in " + folder.manifest->bits +
                       " bits that was delivered with them: pass that one.");
  }
  const auto surplus =
      surplus_stems(folder.stems, std::move(residual), mix.sr, options.threshold, stop);
  if (!surplus.empty()) failure.append("\n").append(advice_on(surplus));
  throw RuntimeError(failure);
}

}  // namespace verdel::internal
