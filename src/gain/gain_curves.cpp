#include "gain/gain_curves.hpp"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "signal/moving_average.hpp"
#include "signal/sequences.hpp"

namespace verdel::internal {
namespace {

constexpr double kSmallestDenominator = 1e-14;  // mean square that still counts as signal
constexpr double kSmallestGain = 0.02, kLargestGain = 50.0;
constexpr double kSilentGain = 1.0;
constexpr double kBlockSeconds = 0.00025;
constexpr double kSmallestLoggedGain = 1e-12;
constexpr double kSmallestTimeConstant = 1e-9;  // in blocks

// Steps between two looks at the stop token: a few milliseconds of work at most.
constexpr std::size_t kStopStride = 65536;

void check_every_stride(const StopToken& stop, std::size_t sample) {
  if (sample % kStopStride == 0) stop.check();
}

void moving_average(std::span<const double> g, std::size_t size, std::span<double> smoothed,
                    const StopToken& stop) {
  for_each_window_sum(
      g.size(), size, [&](std::size_t i) { return g[i]; },
      [&](std::size_t i, double sum) {
        check_every_stride(stop, i);
        smoothed[i] = sum / static_cast<double>(size);
      });
}

// The level of each block in dB; the last block is filled up with the curve's last value.
std::vector<double> block_levels(std::span<const double> g, std::size_t block,
                                 const StopToken& stop) {
  std::vector<double> levels((g.size() + block - 1) / block);
  for (std::size_t k = 0; k < levels.size(); ++k) {
    check_every_stride(stop, k);
    double sum = 0.0;
    for (std::size_t i = k * block; i < (k + 1) * block; ++i) {
      sum += std::log(std::max(g[std::min(i, g.size() - 1)], kSmallestLoggedGain));
    }
    levels[k] = 20.0 * std::log10(std::exp(sum / static_cast<double>(block)));
  }
  return levels;
}

double coefficient(double block_rate, double time_ms) {
  return std::exp(-1.0 / std::max(block_rate * (time_ms * 0.001), kSmallestTimeConstant));
}

// Output k is the filter's state after it has seen x[k + ahead]; beyond the end x stays as it was.
std::vector<double> attack_release(std::span<const double> x, double attack, double release,
                                   std::size_t ahead) {
  std::vector<double> output(x.size());
  double state = x.front();
  for (std::size_t k = 0; k < x.size() + ahead; ++k) {
    const double level = x[std::min(k, x.size() - 1)];
    const double c = level < state ? attack : release;
    state = c * state + (1.0 - c) * level;
    if (k >= ahead) output[k - ahead] = state;
  }
  return output;
}

}  // namespace

void ls_gain(std::span<const double> bm, std::span<const double> bt,
             const GainCurveSettings& settings, std::span<double> gain, const StopToken& stop) {
  assert(bm.size() == bt.size() && bm.size() == gain.size() && settings.gw >= 1);
  const std::size_t gw = settings.gw;
  const double count = static_cast<double>(gw);
  std::vector<double> raw(bm.size());
  for_each_window_sum(
      bm.size(), gw, [&](std::size_t i) { return bm[i] * bt[i]; },
      [&](std::size_t i, double sum) {
        check_every_stride(stop, i);
        raw[i] = sum / count;
      });
  for_each_window_sum(
      bt.size(), gw, [&](std::size_t i) { return bt[i] * bt[i]; },
      [&](std::size_t i, double sum) {
        check_every_stride(stop, i);
        const double power = sum / count;
        const double fit = power > kSmallestDenominator ? raw[i] / power : kSilentGain;
        raw[i] = std::clamp(fit, kSmallestGain, kLargestGain);
      });
  finish_gain(std::move(raw), settings, gain, stop);
}

void finish_gain(std::vector<double> g, const GainCurveSettings& settings, std::span<double> gain,
                 const StopToken& stop) {
  if (settings.attack_ms > 0.0 && settings.release_ms > 0.0) {
    const double lookahead_ms =
        settings.lookahead_ms < 0.0 ? settings.attack_ms : settings.lookahead_ms;
    g = ballistic_smooth(std::move(g), settings.sr, settings.attack_ms, settings.release_ms,
                         lookahead_ms, stop);
  } else if (settings.sw != 0) {
    moving_average(g, settings.sw, gain, stop);
    return;
  }
  std::ranges::copy(g, gain.begin());
}

std::vector<double> ballistic_smooth(std::vector<double> g, double sr, double attack_ms,
                                     double release_ms, std::optional<double> lookahead_ms,
                                     const StopToken& stop) {
  if (g.empty() || attack_ms <= 0.0 || release_ms <= 0.0) return g;
  const double block = std::max(std::trunc(sr * kBlockSeconds), 1.0);
  const double block_rate = sr / block;
  const double ahead =
      round_to_even(sr * std::max(lookahead_ms.value_or(attack_ms), 0.0) * 0.001 / block);

  const auto levels = block_levels(g, static_cast<std::size_t>(block), stop);
  auto smoothed =
      attack_release(levels, coefficient(block_rate, attack_ms),
                     coefficient(block_rate, release_ms), static_cast<std::size_t>(ahead));
  for (auto& value : smoothed) value = std::pow(10.0, value / 20.0);

  const auto blocks = linspace(0.0, static_cast<double>(smoothed.size() - 1), smoothed.size());
  for (std::size_t i = 0; i < g.size(); ++i) {
    check_every_stride(stop, i);
    g[i] = interp(static_cast<double>(i) / block, blocks, smoothed);
  }
  return g;
}

}  // namespace verdel::internal
