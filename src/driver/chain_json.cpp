#include "driver/chain_json.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "driver/output_lines.hpp"

namespace verdel::internal {
namespace {

constexpr double kPointsPerOctave = 24.0;
constexpr double kLowestHz = 20.0;
constexpr double kLeastUncertainty = 0.3;  // dB; the computed one is too small in dense music
constexpr double kSecondsPerPoint = 0.05;  // of a gain

template <class Values, class Text>
std::string array_of(const Values& values, Text text) {
  std::string joined;
  for (const auto& value : values) {
    joined += joined.empty() ? "" : ", ";
    joined += text(value);
  }
  return "[" + joined + "]";
}

double decibels(double factor) {
  return 20.0 * std::log10(std::max(factor, 1e-15));
}

/// The bins that a picture needs: every bin in the bass, some to the octave above.
std::vector<std::size_t> shown_bins(const std::vector<double>& hz) {
  std::vector<std::size_t> bins;
  double next = kLowestHz;
  for (std::size_t k = 0; k < hz.size(); ++k) {
    if (hz[k] < next) continue;
    bins.push_back(k);
    next = std::max(next, hz[k]) * std::exp2(1.0 / kPointsPerOctave);
  }
  return bins;
}

std::string curve_json(const CurveFinding& finding) {
  const auto bins = shown_bins(finding.hz);
  const auto number = [](double value) { return fmt::format("{:.4g}", value); };
  const auto curves = array_of(finding.curves, [&](const ChainCurve& curve) {
    const auto level = [&](std::size_t k) { return number(decibels(std::abs(curve.response[k]))); };
    const auto phase = [&](std::size_t k) { return number(std::arg(curve.response[k])); };
    const auto doubt = [&](std::size_t k) {
      const double size = std::max(std::abs(curve.response[k]), 1e-15);
      const double decibels_of_it = 20.0 / std::log(10.0) * finding.deviation[k] / size;
      return number(std::max(decibels_of_it, kLeastUncertainty));
    };
    return fmt::format(R"({{"name": {}, "db": {}, "phase": {}, "uncertainty_db": {}}})",
                       json_string(curve.name), array_of(bins, level), array_of(bins, phase),
                       array_of(bins, doubt));
  });
  return fmt::format(
      R"({{"used": {}, "why_not": {}, "model": {}, "left_before_db": {:.2f}, )"
      R"("left_after_db": {:.2f}, "cross_validation_db": {:.2f}, "against": {:.3f}, "hz": {}, )"
      R"("curves": {}}})",
      finding.used, json_string(finding.why_not), json_string(name_of(finding.model)),
      finding.left_before, finding.left_after, finding.cross_validation, finding.against,
      array_of(bins, [&](std::size_t k) { return number(finding.hz[k]); }), curves);
}

std::string gain_json(const FineGain& gain, int sr) {
  const double seconds = static_cast<double>(gain.hop) / sr;
  const auto stride = static_cast<std::size_t>(std::max(1.0, kSecondsPerPoint / seconds));
  std::vector<std::size_t> frames;
  for (std::size_t k = gain.frame / gain.hop / 2; k < gain.factors.rows(); k += stride) {
    frames.push_back(k);
  }
  std::vector<std::size_t> bands(gain.centres.size());
  for (std::size_t b = 0; b < bands.size(); ++b) bands[b] = b;
  return fmt::format(
      R"({{"kind": "{}", "hz": {}, "stiffness": {:g}, "seconds_per_point": {:.6f}, "db": {}}})",
      gain.in_bands ? "bands" : "fine",
      array_of(gain.centres, [](double hz) { return fmt::format("{:g}", hz); }), gain.stiffness,
      seconds * static_cast<double>(stride), array_of(bands, [&](std::size_t band) {
        return array_of(frames, [&](std::size_t k) {
          return fmt::format("{:.2f}", decibels(gain.factors.row(k)[band]));
        });
      }));
}

}  // namespace

std::string chain_json(const ChainFinding& finding, const StemMap& taps, int sr) {
  std::vector<std::size_t> order(taps.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  const auto tap_json = [&](std::size_t i) {
    const auto& votes = finding.curve.votes;
    const bool voted = i < votes.size() && votes[i].vote;
    return fmt::format(R"({{"name": {}, "lag": {}, "vote": {}}})", json_string(taps[i].name),
                       finding.curve.lags[i],
                       voted ? fmt::format("{:.3f}", *votes[i].vote) : "null");
  };
  return fmt::format(
      "{{\"v\": 1, \"sample_rate\": {}, \"curve\": {},\n\"gains\": {},\n\"taps\": {}}}\n", sr,
      curve_json(finding.curve),
      array_of(finding.gains.used, [&](const FineGain& gain) { return gain_json(gain, sr); }),
      array_of(order, tap_json));
}

}  // namespace verdel::internal
