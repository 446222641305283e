#include "diagnosis/tap_levels.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr double kSilence = 1e-5;        // -100 dBFS
constexpr double kAudibleOffset = 1e-3;  // -60 dBFS
constexpr double kFullScale = 0.995;
constexpr std::size_t kShortestRun = 3;  // samples of one value at full scale
constexpr std::size_t kFewestRuns = 3;
constexpr double kMostStretches = 20;

constexpr double kLowestEdge = 6000.0;  // Hz; below it instruments end by themselves
constexpr double kEdgeWidth = 400.0;    // Hz
constexpr double kEdgeFall = 20.0;      // dB across it
constexpr double kHeard = -80.0;  // dB of the tap's loudest, which it holds right below the edge
constexpr double kMixGoesOn = -75.0;  // dB of the mix's loudest, which it holds above

double db(double power) {
  return power > 0.0 ? 10.0 * std::log10(power) : -999.0;
}

struct Channel {
  double peak = 0.0, offset = 0.0;
  std::size_t runs = 0, clipped = 0;  ///< clipped samples in all runs
  std::vector<Stretch> where;
};

/// What a signal is off by in nearly all parts of it; a long wave that is cut off has a mean too.
double offset_of(std::span<const float> samples) {
  constexpr std::size_t kParts = 16;
  std::array<double, kParts> means{};
  for (std::size_t p = 0; p < kParts; ++p) {
    const std::size_t first = p * samples.size() / kParts;
    const std::size_t stop = (p + 1) * samples.size() / kParts;
    for (std::size_t i = first; i < stop; ++i) means[p] += static_cast<double>(samples[i]);
    means[p] /= static_cast<double>(std::max<std::size_t>(stop - first, 1));
  }
  std::ranges::sort(means);
  const bool one_sign = means[1] > 0.0 || means[kParts - 2] < 0.0;
  return one_sign ? means[kParts / 2] : 0.0;
}

Channel measure(std::span<const float> samples, int sr) {
  Channel channel;
  for (const float x : samples) {
    channel.peak = std::max(channel.peak, static_cast<double>(std::abs(x)));
  }
  channel.offset = offset_of(samples);
  if (channel.peak < kFullScale) return channel;
  for (std::size_t i = 0; i < samples.size();) {
    std::size_t end = i + 1;
    if (static_cast<double>(std::abs(samples[i])) >= kFullScale) {
      while (end < samples.size() && samples[end] == samples[i]) ++end;
      if (end - i >= kShortestRun) {
        ++channel.runs;
        channel.clipped += end - i;
        if (static_cast<double>(channel.where.size()) < kMostStretches) {
          channel.where.push_back({static_cast<double>(i) / sr, static_cast<double>(end) / sr});
        }
      }
    }
    i = end;
  }
  return channel;
}

const char* side_name(std::size_t channel, std::size_t channels) {
  return channels != 2 ? "it" : channel == 0 ? "its left side" : "its right side";
}

double mean_power(const std::vector<double>& spectrum, const SpectralSums& sums, double from,
                  double to) {
  double sum = 0.0;
  std::size_t count = 0;
  for (std::size_t k = 0; k < spectrum.size(); ++k) {
    const double hz = sums.hz_of_bin(k);
    if (hz < from || hz >= to) continue;
    sum += spectrum[k];
    ++count;
  }
  return count == 0 ? 0.0 : sum / static_cast<double>(count);
}

}  // namespace

std::vector<Finding> level_findings(const std::string& name, StemView tap, int sr) {
  std::vector<Finding> findings;
  std::vector<Channel> channels;
  double peak = 0.0;
  for (std::size_t c = 0; c < tap.rows(); ++c) {
    channels.push_back(measure(tap.row(c), sr));
    peak = std::max(peak, channels.back().peak);
  }
  const auto add = [&](const char* kind, Severity severity, std::string text) -> Finding& {
    findings.push_back({.kind = kind,
                        .taps = {name},
                        .severity = severity,
                        .text = std::move(text),
                        .where = {},
                        .figures = {}});
    return findings.back();
  };
  if (peak < kSilence) {
    add("silent", Severity::kFix,
        "is silent from beginning to end. Bounce it again, or leave it out.");
    return findings;
  }
  for (std::size_t c = 0; c < channels.size(); ++c) {
    const Channel& channel = channels[c];
    const char* const side = side_name(c, channels.size());
    if (channel.peak < kSilence) {
      add("sides", Severity::kFix,
          fmt::format("{} is silent, the other is not. Bounce it as stereo, through its panner.",
                      side));
      continue;
    }
    if (std::abs(channel.offset) > kAudibleOffset) {
      add("offset", Severity::kLook,
          fmt::format(
              "{} has an offset of {:.4f} of full scale ({:.1f} dBFS). Take it out where it comes "
              "from, or put a low cut there.",
              side, channel.offset, 2.0 * db(std::abs(channel.offset))))
          .figures = {{"offset", channel.offset}};
    }
    if (channel.runs >= kFewestRuns) {
      Finding& finding =
          add("clipped", Severity::kFix,
              fmt::format(
                  "{} is clipped: {} of full scale, {} in all. What is cut off is missing from the "
                  "sum; bounce it as 32-bit float, or lower.",
                  side, counted(channel.runs, "run"), counted(channel.clipped, "sample")));
      finding.where = channel.where;
      finding.figures = {{"runs", static_cast<double>(channel.runs)},
                         {"samples", static_cast<double>(channel.clipped)}};
    }
  }
  return findings;
}

bool is_mono(StemView tap) {
  if (tap.rows() != 2) return false;
  float peak = 0.0F, side = 0.0F;
  for (std::size_t i = 0; i < tap.columns(); ++i) {
    peak = std::max(peak, std::abs(tap.row(0)[i]));
    side = std::max(side, std::abs(tap.row(0)[i] - tap.row(1)[i]));
  }
  return static_cast<double>(peak) > kSilence && side <= 1e-6F * peak;
}

std::vector<Finding> band_findings(const SpectralSums& sums,
                                   const std::vector<std::string>& names) {
  std::vector<Finding> findings;
  const auto& mix = sums.spectrum(sums.taps());
  const double loudest_mix = *std::ranges::max_element(mix);
  for (std::size_t t = 0; t < sums.taps(); ++t) {
    const auto& tap = sums.spectrum(t);
    const double loudest = *std::ranges::max_element(tap);
    if (loudest <= 0.0) continue;
    const double highest = 0.5 * sums.sr() - 3.0 * kEdgeWidth;
    double steepest = 0.0, edge = 0.0;
    for (double hz = kLowestEdge; hz < highest; hz += 0.25 * kEdgeWidth) {
      const double below = mean_power(tap, sums, hz - kEdgeWidth, hz);
      if (db(below / loudest) < kHeard) continue;
      // The whole rest, so that a dip is no end.
      const double above = mean_power(tap, sums, hz + kEdgeWidth, 0.5 * sums.sr());
      const double fall = db(below) - db(std::max(above, 1e-30 * loudest));
      if (fall <= steepest) continue;
      steepest = fall;
      edge = hz;
    }
    const double mix_above = mean_power(mix, sums, edge + kEdgeWidth, edge + 4.0 * kEdgeWidth);
    if (steepest < kEdgeFall || db(mix_above / loudest_mix) < kMixGoesOn) continue;
    findings.push_back(
        {.kind = "bandlimited",
         .taps = {names[t]},
         .severity = Severity::kLook,
         .text = fmt::format(
             "holds nothing above {:.1f} kHz ({:.0f} dB less than right below), where the "
             "mix goes on: it came through a rate conversion or a lossy file. Bounce it "
             "from the session.",
             (edge + 0.5 * kEdgeWidth) / 1000.0, steepest),
         .where = {},
         .figures = {{"hz", edge + 0.5 * kEdgeWidth}, {"fall_db", steepest}}});
  }
  return findings;
}

}  // namespace verdel::internal
