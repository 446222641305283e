#include "chain/chain_gain.hpp"

#include <cmath>
#include <numeric>
#include <vector>

#include "signal/moving_average.hpp"
#include "signal/sums.hpp"

namespace verdel::internal {
namespace {

constexpr double kCellSeconds = 0.015 / 40.0;
constexpr double kSilentPower = 1e-14;  // mean square
constexpr double kSmallestGain = 0.02, kLargestGain = 50.0;

/// Means over centred windows of `width` cells, parts of cells at both ends, reflecting.
std::vector<double> window_means(const std::vector<double>& cells, double width) {
  const double beyond = (std::max(width, 1.0) - 1.0) / 2.0, reach = std::floor(beyond);
  const double end_weight = beyond - reach;
  const auto ends = static_cast<std::ptrdiff_t>(reach) + 1;
  std::vector<double> means(cells.size());
  for_each_window_sum(
      cells.size(), 2 * static_cast<std::size_t>(reach) + 1,
      [&](std::size_t i) { return cells[i]; },
      [&](std::size_t i, double sum) {
        const auto place = static_cast<std::ptrdiff_t>(i);
        const double left = cells[reflected_index(place - ends, cells.size())];
        const double right = cells[reflected_index(place + ends, cells.size())];
        means[i] = (sum + end_weight * (left + right)) / (2.0 * beyond + 1.0);
      });
  return means;
}

std::vector<double> cell_gain(std::span<const double> mix, std::span<const double> heard,
                              std::size_t cell, double window, double smooth,
                              const StopToken& stop) {
  std::vector<double> cross((mix.size() + cell - 1) / cell), power(cross.size());
  for (std::size_t k = 0; k < cross.size(); ++k) {
    if (k % 4096 == 0) stop.check();
    const std::size_t first = k * cell, count = std::min(cell, mix.size() - first);
    const double *m = mix.data() + first, *y = heard.data() + first;
    const auto samples = static_cast<double>(count);
    cross[k] = lane_sum(count, [=](std::size_t i) { return m[i] * y[i]; }) / samples;
    power[k] = lane_sum(count, [=](std::size_t i) { return y[i] * y[i]; }) / samples;
  }
  cross = window_means(cross, window);
  power = window_means(power, window);
  for (std::size_t k = 0; k < cross.size(); ++k) {
    const double fit = power[k] > kSilentPower ? cross[k] / power[k] : 1.0;
    cross[k] = std::clamp(fit, kSmallestGain, kLargestGain);
  }
  return window_means(cross, smooth);
}

}  // namespace

GainCurve::GainCurve(AudioView heard, const GainTimes& times, const ChainJob& job) {
  const std::size_t cell =
      std::max<std::size_t>(1, static_cast<std::size_t>(kCellSeconds * job.sr));
  const double cells_per_second = static_cast<double>(job.sr) / static_cast<double>(cell);
  const std::size_t cells = (heard.columns() + cell - 1) / cell;
  per_cell_ = 1.0 / static_cast<double>(cell);
  last_ = static_cast<double>(cells - 1);
  values_ = Array2D<double>::uninitialised(heard.rows(), cells);
  run_indexed(job.pool, heard.rows(), [&](std::size_t c) {
    const auto gain =
        cell_gain(job.mix.row(c), heard.row(c), cell, times.window_s * cells_per_second,
                  times.smooth_s * cells_per_second, job.stop);
    std::ranges::copy(gain, values_.row(c).begin());
  });
}

double left_under_engine_gain(AudioView heard, const ChainJob& job) {
  const GainCurve gain(heard, kEngineGain, job);
  std::vector<double> left(heard.rows());
  run_indexed(job.pool, heard.rows(), [&](std::size_t c) {
    const auto mix = job.mix.row(c), y = heard.row(c);
    left[c] = lane_sum(y.size(), [&](std::size_t i) {
      const double rest = mix[i] - gain.at(c, i) * y[i];
      return rest * rest;
    });
  });
  return energy_db(std::accumulate(left.begin(), left.end(), 0.0) / energy_of(job.mix));
}

void take_rest(AudioView heard, const GainCurve& gain, const ChainJob& job, AudioArray& rest) {
  run_indexed(job.pool, heard.rows(), [&](std::size_t c) {
    const auto mix = job.mix.row(c), y = heard.row(c);
    const auto row = rest.row(c);
    for (std::size_t i = 0; i < row.size(); ++i) row[i] = mix[i] - gain.at(c, i) * y[i];
  });
}

double energy_of(AudioView audio) {
  double energy = 0.0;
  for (std::size_t row = 0; row < audio.rows(); ++row) energy += sum_of_squares(audio.row(row));
  return energy;
}

double energy_db(double ratio) {
  return 10.0 * std::log10(std::max(ratio, 1e-30));
}

}  // namespace verdel::internal
