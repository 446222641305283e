#include "excerpt/tempo.hpp"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cmath>
#include <complex>

#include "signal/arrays.hpp"
#include "signal/transforms.hpp"

namespace verdel::internal {
namespace {

constexpr double kFastest = 200.0, kSlowest = 60.0;  // beats per minute
constexpr std::size_t kQuarters = 4;                 // parts of the track that vote
constexpr std::size_t kPeriodsToVote = 4;            // slowest beats that a part must hold
constexpr double kAgreement = 0.04;                  // relative difference of periods

// The lags searched, `low` included, `high` not.
struct LagRange {
  std::size_t low, high;
};

std::optional<LagRange> searched_lags(double fps, std::size_t curve_length) {
  const double low = std::max(1.0, std::nearbyint(fps * 60.0 / kFastest));
  const double high =
      std::min(std::nearbyint(fps * 60.0 / kSlowest), static_cast<double>(curve_length) - 1.0);
  if (!(high > low)) return std::nullopt;
  return LagRange{static_cast<std::size_t>(low), static_cast<std::size_t>(high)};
}

// The period of one part of the curve; nothing if the part is too short to tell.
std::optional<double> period_of(std::span<const double> seg, LagRange lags) {
  if (seg.size() < kPeriodsToVote * lags.high) return std::nullopt;
  return refined_period(autocorrelation(seg, lags.high), lags.low, lags.high);
}

// The same tempo, or half or double of it.
bool agrees(double p, double period) {
  const auto near_one = [](double ratio) { return std::abs(ratio - 1.0) < kAgreement; };
  return near_one(p / period) || near_one(2.0 * p / period) || near_one(p / (2.0 * period));
}

double agreement_of_quarters(std::span<const double> flux, double period, LagRange lags) {
  const std::size_t quarter = flux.size() / kQuarters;
  std::size_t counted = 0, agreeing = 0;
  for (std::size_t q = 0; q < kQuarters; ++q) {
    const auto p = period_of(flux.subspan(q * quarter, quarter), lags);
    if (!p) continue;
    ++counted;
    if (agrees(*p, period)) ++agreeing;
  }
  return counted == 0 ? 0.0 : static_cast<double>(agreeing) / static_cast<double>(counted);
}

// The first of `count` candidates with the highest score; candidates without one are passed over.
template <class Score>
std::size_t best_candidate(std::size_t count, Score score) {
  std::size_t best = 0;
  double highest = -1e30;
  for (std::size_t candidate = 0; candidate < count; ++candidate) {
    const std::optional<double> value = score(candidate);
    if (value && *value > highest) {
      highest = *value;
      best = candidate;
    }
  }
  return best;
}

std::size_t find_beat_phase(std::span<const double> flux, std::size_t period_frames) {
  return best_candidate(period_frames, [&](std::size_t phase) {
    double score = 0.0;
    for (std::size_t i = phase; i < flux.size(); i += period_frames) score += flux[i];
    return std::optional(score);
  });
}

// Which beat of the bar starts it, on a grid that keeps the fraction of the period.
std::size_t find_downbeat(std::span<const double> flux, std::size_t phase, double period) {
  const auto length = static_cast<double>(flux.size());
  const double bars = std::max(1.0, std::ceil(length / period));
  return best_candidate(kBeatsPerBar, [&](std::size_t offset) {
    double score = 0.0;
    bool any = false;
    for (double bar = 0.0; bar < bars; bar += 1.0) {
      const double beat = static_cast<double>(offset) + static_cast<double>(kBeatsPerBar) * bar;
      const double position = std::nearbyint(static_cast<double>(phase) + period * beat);
      if (position >= length) break;
      score += flux[static_cast<std::size_t>(position)];
      any = true;
    }
    return any ? std::optional(score) : std::nullopt;
  });
}

}  // namespace

std::vector<double> autocorrelation(std::span<const double> curve, std::size_t max_lag) {
  assert(max_lag < curve.size());
  // Long enough that none of the wanted lags sees the curve's end wrap into its beginning.
  const RealTransform<double> transform(
      std::bit_ceil(std::max<std::size_t>(2, curve.size() + max_lag)));
  auto time = AudioArray::zeros(1, transform.length());
  auto spectrum = Array2D<std::complex<double>>::uninitialised(1, transform.bins());
  std::ranges::copy(curve, time.data());
  transform.forward(time.data(), spectrum.data());
  for (auto& bin : spectrum.flat()) bin = {bin.real() * bin.real() + bin.imag() * bin.imag(), 0.0};
  transform.inverse(spectrum.data(), time.data());
  std::vector<double> values(max_lag + 1);
  const auto scale = static_cast<double>(transform.length());
  for (std::size_t lag = 0; lag <= max_lag; ++lag) values[lag] = time.data()[lag] / scale;
  return values;
}

double refined_period(std::span<const double> ac_values, std::size_t low, std::size_t high) {
  assert(low < high && high <= ac_values.size());
  const auto searched = ac_values.subspan(low, high - low);
  const std::size_t peak =
      low + static_cast<std::size_t>(std::ranges::max_element(searched) - searched.begin());
  if (peak == 0 || peak + 1 >= ac_values.size()) return static_cast<double>(peak);
  const double left = ac_values[peak - 1], centre = ac_values[peak], right = ac_values[peak + 1];
  const double denominator = left - 2.0 * centre + right;
  const double offset = std::abs(denominator) < 1e-20 ? 0.0 : 0.5 * (left - right) / denominator;
  return static_cast<double>(peak) + std::clamp(offset, -0.5, 0.5);
}

std::optional<Tempo> find_tempo(std::span<const double> flux, double fps) {
  const auto lags = searched_lags(fps, flux.size());
  if (!lags) return std::nullopt;
  const auto sums = autocorrelation(flux, lags->high);
  if (!std::ranges::all_of(sums, [](double sum) { return std::isfinite(sum); })) {
    return std::nullopt;
  }
  const double period = refined_period(sums, lags->low, lags->high);
  const auto period_frames = static_cast<std::size_t>(std::max(1.0, std::nearbyint(period)));
  const std::size_t phase = find_beat_phase(flux, period_frames);
  const std::size_t downbeat = find_downbeat(flux, phase, period);
  return Tempo{
      .period = period,
      .confidence = agreement_of_quarters(flux, period, *lags),
      .first_downbeat = static_cast<double>(phase) + period * static_cast<double>(downbeat)};
}

}  // namespace verdel::internal
