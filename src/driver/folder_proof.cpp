#include "driver/folder_proof.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "inputs/audio_loading.hpp"
#include "signal/levels.hpp"
#include "support/errors.hpp"
#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

/// What a render writes beside its stems when it is asked for diagnostics.
constexpr const char* kDiagnosticName = "_NULL_RESIDUAL";

struct ChannelProof {
  Levels difference;
  std::size_t worst = 0;  ///< the sample of the peak, counted from the beginning of the mix
};

struct FolderProof {
  std::size_t stems = 0, start = 0, frames = 0;
  std::vector<ChannelProof> channels;
  double peak = 0.0;  ///< dB, of all channels
  bool passed = false;
};

std::vector<StemInput> stems_of(const std::string& folder) {
  auto stems = plan_stem_inputs(folder);
  std::erase_if(stems, [](const StemInput& stem) { return stem.name == kDiagnosticName; });
  if (stems.empty()) {
    throw ValueError("no stems in " + quoted_path(folder) + ". Pass the folder that holds them.");
  }
  return stems;
}

void require_like_the_mix(const StemInput& input, const LoadedAudio& stem, const LoadedAudio& mix,
                          std::size_t frames) {
  const auto refuse = [&](const char* what, std::size_t has, std::size_t wanted) {
    throw ValueError(fmt::format("{}: {} {}, where the others have {}",
                                 quoted_path(input.files.front()), has, what, wanted));
  };
  const auto hz = [](int sr) { return static_cast<std::size_t>(sr); };
  if (stem.sr != mix.sr) refuse("Hz", hz(stem.sr), hz(mix.sr));
  if (stem.audio.rows() != mix.audio.rows()) {
    refuse("channels", stem.audio.rows(), mix.audio.rows());
  }
  if (stem.audio.columns() != frames) refuse("frames", stem.audio.columns(), frames);
}

void add(const AudioArray& stem, AudioArray& sum) {
  for (std::size_t channel = 0; channel < sum.rows(); ++channel) {
    const auto row = stem.row(channel);
    const auto total = sum.row(channel);
    for (std::size_t i = 0; i < total.size(); ++i) total[i] += row[i];
  }
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

ChannelProof prove_channel(std::span<const double> mix, std::span<double> sum, std::size_t start) {
  ChannelProof proof;
  double peak = -1.0;
  for (std::size_t i = 0; i < sum.size(); ++i) {
    sum[i] = mix[i] - sum[i];
    const double magnitude = std::abs(sum[i]);
    if (magnitude <= peak) continue;
    peak = magnitude;
    proof.worst = start + i;
    if (std::isnan(peak)) break;
  }
  proof.difference = levels(AudioView(sum.data(), 1, sum.size(), sum.size()));
  return proof;
}

FolderProof prove(const VerifyOptions& options, const LoadedAudio& mix,
                  const std::vector<StemInput>& stems, const StopToken& stop) {
  FolderProof proof;
  proof.stems = stems.size();
  std::optional<AudioArray> sum;
  for (const StemInput& input : stems) {
    LoadedAudio stem = load_audio_input(input, stop);
    if (!sum) proof.frames = stem.audio.columns();
    require_like_the_mix(input, stem, mix, proof.frames);
    if (sum) {
      add(stem.audio, *sum);
    } else {
      sum = std::move(stem.audio);
    }
  }
  proof.start = start_of(options, mix, proof.frames);
  proof.peak = -999.0;
  proof.passed = true;
  for (std::size_t channel = 0; channel < sum->rows(); ++channel) {
    const auto part = mix.audio.row(channel).subspan(proof.start, proof.frames);
    proof.channels.push_back(prove_channel(part, sum->row(channel), proof.start));
    const double peak = proof.channels.back().difference.peak;
    // Not a number fails.
    if (!(peak < options.threshold)) proof.passed = false;
    if (!(peak <= proof.peak)) proof.peak = peak;
  }
  return proof;
}

void print_text(const FolderProof& proof, int sr, OutputLines& lines) {
  lines.print(fmt::format("{} stems, {} frames from {}, {} Hz", proof.stems, proof.frames,
                          proof.start, sr));
  for (std::size_t channel = 0; channel < proof.channels.size(); ++channel) {
    const auto& [difference, worst] = proof.channels[channel];
    lines.print(fmt::format("channel {}: peak {} dBFS at sample {} ({:.3f} s), rms {} dBFS",
                            channel + 1, one_decimal(difference.peak), worst,
                            static_cast<double>(worst) / sr, one_decimal(difference.rms)));
  }
  lines.print(fmt::format("null residual: {} dBFS  {}", one_decimal(proof.peak),
                          proof.passed ? "PASS" : "FAIL"));
}

/// JSON has neither infinity nor "not a number": null stands for the latter.
std::string json_number(double value) {
  return std::isfinite(value) ? shortest_float64(value) : "null";
}

void print_json(const FolderProof& proof, const VerifyOptions& options, int sr,
                OutputLines& lines) {
  std::string channels;
  for (const auto& [difference, worst] : proof.channels) {
    channels += fmt::format(R"({}{{"peak_dbfs": {}, "rms_dbfs": {}, "worst_sample": {}}})",
                            channels.empty() ? "" : ", ", json_number(difference.peak),
                            json_number(difference.rms), worst);
  }
  lines.print(fmt::format(
      R"({{"mix": {}, "stems": {}, "count": {}, "start": {}, "frames": {}, "sample_rate": {}, )"
      R"("threshold_dbfs": {}, "peak_dbfs": {}, "passed": {}, "channels": [{}]}})",
      json_string(*options.mix), json_string(*options.stems), proof.stems, proof.start,
      proof.frames, sr, json_number(options.threshold), json_number(proof.peak), proof.passed,
      channels));
}

}  // namespace

bool prove_folder(const VerifyOptions& options, OutputLines& lines, const StopToken& stop) {
  const auto stems = stems_of(*options.stems);
  const LoadedAudio mix = load_audio_input(plan_mix_input(*options.mix), stop);
  const FolderProof proof = prove(options, mix, stems, stop);
  if (options.json) {
    print_json(proof, options, mix.sr, lines);
  } else {
    print_text(proof, mix.sr, lines);
  }
  return proof.passed;
}

}  // namespace verdel::internal
