#include "chain/chain_figures.hpp"

#include <algorithm>
#include <cmath>

namespace verdel::internal {
namespace {

constexpr double kPointsPerOctave = 24.0;
constexpr double kLowestHz = 20.0;
constexpr double kLeastUncertainty = 0.3;  // dB; the computed one is too small in dense music
constexpr double kSecondsPerPoint = 0.05;  // of a gain
constexpr double kLeastFactor = 1e-15;

double decibels(double factor) {
  return 20.0 * std::log10(std::max(factor, kLeastFactor));
}

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

EqualiserFigures figures_of(const std::vector<double>& hz, const std::vector<ChainCurve>& curves,
                            const std::vector<double>& deviation) {
  constexpr double kDecibelsPerNeper = 8.685889638065037;
  EqualiserFigures figures;
  const auto bins = shown_bins(hz);
  for (const std::size_t k : bins) figures.hz.push_back(hz[k]);
  for (const ChainCurve& curve : curves) {
    ResponseFigures response{.name = curve.name, .db = {}, .phase = {}, .uncertainty_db = {}};
    for (const std::size_t k : bins) {
      const double size = std::abs(curve.response[k]);
      const double doubt = kDecibelsPerNeper * deviation[k] / std::max(size, kLeastFactor);
      response.db.push_back(decibels(size));
      response.phase.push_back(std::arg(curve.response[k]));
      response.uncertainty_db.push_back(std::max(doubt, kLeastUncertainty));
    }
    figures.responses.push_back(std::move(response));
  }
  return figures;
}

}  // namespace

std::string_view kind_of(const FineGain& gain) {
  return gain.in_bands ? "bands" : "fine";
}

std::string_view kind_of(const TapFilter& filter) {
  return filter.is_effect ? "effect" : "eq";
}

EqualiserFigures equaliser_figures(const CurveFinding& curve) {
  return figures_of(curve.hz, curve.curves, curve.deviation);
}

EqualiserFigures equaliser_figures(const TapFilter& filter) {
  return figures_of(filter.hz, filter.curves, filter.deviation);
}

GainFigures gain_figures(const FineGain& gain, int sr) {
  const double seconds = static_cast<double>(gain.hop) / sr;
  const auto stride = static_cast<std::size_t>(std::max(1.0, kSecondsPerPoint / seconds));
  GainFigures figures{.channels = {},
                      .hz = gain.centres,
                      .seconds_per_point = seconds * static_cast<double>(stride),
                      .db = {}};
  if (gain.channels_apart()) figures.channels = {"left", "right"};
  for (const Array2D<double>& factors : gain.factors) {
    auto& bands = figures.db.emplace_back(gain.centres.size());
    // The middle of this frame is the first sample.
    for (std::size_t k = gain.frame / gain.hop / 2; k < factors.rows(); k += stride) {
      for (std::size_t b = 0; b < bands.size(); ++b)
        bands[b].push_back(decibels(factors.row(k)[b]));
    }
  }
  return figures;
}

std::vector<AppliedLag> moves_of(const ChainFinding& finding,
                                 const std::vector<std::string>& taps) {
  std::vector<AppliedLag> moves;
  for (std::size_t i = 0; i < taps.size(); ++i) {
    if (finding.curve.lags[i] != 0) moves.push_back({taps[i], finding.curve.lags[i]});
  }
  return moves;
}

}  // namespace verdel::internal
