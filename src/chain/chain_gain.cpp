#include "chain/chain_gain.hpp"

#include <cmath>
#include <type_traits>
#include <vector>

#include "signal/instruction_sets.hpp"
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

/// Sums over a cell of `count` samples.
struct CellSums {
  double cross = 0.0, power = 0.0;
};

template <class Sample>
VERDEL_INLINE void sum_cells(const double* mix, const Sample* heard, std::size_t cell,
                             std::span<CellSums> sums) {
  for (std::size_t k = 0; k < sums.size(); ++k) {
    const double* const m = mix + k * cell;
    const Sample* const y = heard + k * cell;
    sums[k].cross = lane_sum(
        cell, [ m, y ](std::size_t i)
                  __attribute__((always_inline)) { return m[i] * static_cast<double>(y[i]); });
    sums[k].power = lane_sum(
        cell, [y](std::size_t i) __attribute__((always_inline)) {
          return static_cast<double>(y[i]) * static_cast<double>(y[i]);
        });
  }
}

template <class Sample>
std::vector<double> cell_gain(std::span<const double> mix, std::span<const Sample> heard,
                              std::size_t cell, double window, double smooth,
                              const StopToken& stop) {
  constexpr std::size_t kAtOnce = 4096;  // cells
  std::vector<double> cross((mix.size() + cell - 1) / cell), power(cross.size());
  std::vector<CellSums> sums(kAtOnce);
  const std::size_t whole = mix.size() / cell;
  for (std::size_t k = 0; k < cross.size();) {
    stop.check();
    // A short cell at the end is one of its own.
    const std::size_t first = k * cell, count = k < whole ? cell : mix.size() - first;
    const auto part = std::span(sums).first(k < whole ? std::min(kAtOnce, whole - k) : 1);
    run_kernel<sum_cells<Sample>>(mix.data() + first, heard.data() + first, count, part);
    const auto samples = static_cast<double>(count);
    for (const CellSums& sum : part) {
      cross[k] = sum.cross / samples;
      power[k++] = sum.power / samples;
    }
  }
  cross = window_means(cross, window);
  power = window_means(power, window);
  for (std::size_t k = 0; k < cross.size(); ++k) {
    const double fit = power[k] > kSilentPower ? cross[k] / power[k] : 1.0;
    cross[k] = std::clamp(fit, kSmallestGain, kLargestGain);
  }
  return window_means(cross, smooth);
}

/// into[i] = from + weight[i] * (to - from).
VERDEL_INLINE void draw_line(float from, float to, std::span<const float> weights, float* into) {
  for (std::size_t i = 0; i < weights.size(); ++i) into[i] = from + weights[i] * (to - from);
}

/// Whole cells of samples, each on the line from its value to the next.
VERDEL_INLINE void draw_lines(const double* values, std::size_t cells,
                              std::span<const float> weights, float* into) {
  for (std::size_t k = 0; k < cells; ++k) {
    draw_line(static_cast<float>(values[k]), static_cast<float>(values[k + 1]), weights,
              into + k * weights.size());
  }
}

template <class Sample, class Rest>
VERDEL_INLINE void subtract_explained(const double* mix, const Sample* heard,
                                      std::span<const float> gains, Rest* rest) {
  for (std::size_t i = 0; i < gains.size(); ++i) {
    rest[i] =
        static_cast<Rest>(mix[i] - static_cast<double>(gains[i]) * static_cast<double>(heard[i]));
  }
}

template <class Sample>
VERDEL_INLINE double rest_energy(const double* mix, const Sample* heard,
                                 std::span<const float> gains) {
  return lane_sum(
      gains.size(), [ mix, heard, gains ](std::size_t i) __attribute__((always_inline)) {
        const double rest = mix[i] - static_cast<double>(gains[i]) * static_cast<double>(heard[i]);
        return rest * rest;
      });
}

template <class View>
double left_of(View heard, const ChainJob& job) {
  using Sample = std::remove_cvref_t<decltype(heard.row(0)[0])>;
  const GainCurve gain(heard, kEngineGain, job);
  const double left = sum_over_parts(job, [&](const ChannelPart& part) {
    const double* const mix = job.mix.row(part.channel).data();
    const Sample* const y = heard.row(part.channel).data();
    double sum = 0.0;
    for_each_stretch(gain, part, job.stop, [&](std::size_t first, std::span<const float> gains) {
      sum += run_kernel<rest_energy<Sample>>(mix + first, y + first, gains);
    });
    return sum;
  });
  return energy_db(left / energy_of_mix(job));
}

template <class View, class Audio>
void take_rest_of(View heard, const GainCurve& gain, const ChainJob& job, Audio& rest) {
  using Sample = std::remove_cvref_t<decltype(heard.row(0)[0])>;
  using Rest = std::remove_cvref_t<decltype(rest.row(0)[0])>;
  for_each_part(job, [&](const ChannelPart& part) {
    const double* const mix = job.mix.row(part.channel).data();
    const Sample* const y = heard.row(part.channel).data();
    Rest* const row = rest.row(part.channel).data();
    for_each_stretch(gain, part, job.stop, [&](std::size_t first, std::span<const float> gains) {
      run_kernel<subtract_explained<Sample, Rest>>(mix + first, y + first, gains, row + first);
    });
  });
}

template <class View>
double energy_over_rows(View audio) {
  double energy = 0.0;
  for (std::size_t row = 0; row < audio.rows(); ++row) energy += sum_of_squares(audio.row(row));
  return energy;
}

}  // namespace

GainCurve::GainCurve(HeardView heard, const GainTimes& times, const ChainJob& job) {
  measure(heard, times, job);
}

GainCurve::GainCurve(AudioView heard, const GainTimes& times, const ChainJob& job) {
  measure(heard, times, job);
}

template <class View>
void GainCurve::measure(View heard, const GainTimes& times, const ChainJob& job) {
  const std::size_t cell =
      std::max<std::size_t>(1, static_cast<std::size_t>(kCellSeconds * job.sr));
  const double cells_per_second = static_cast<double>(job.sr) / static_cast<double>(cell);
  const std::size_t cells = (heard.columns() + cell - 1) / cell;
  per_cell_ = 1.0 / static_cast<double>(cell);
  last_ = static_cast<double>(cells - 1);
  for (std::size_t i = 0; i < cell; ++i) {
    const double past_middle = cell % 2 == 0 ? 0.5 : 0.0;
    weights_.push_back(static_cast<float>((static_cast<double>(i) + past_middle) * per_cell_));
  }
  values_ = Array2D<double>::uninitialised(heard.rows(), cells);
  run_indexed(job.pool, heard.rows(), [&](std::size_t c) {
    const auto gain =
        cell_gain(job.mix.row(c), heard.row(c), cell, times.window_s * cells_per_second,
                  times.smooth_s * cells_per_second, job.stop);
    std::ranges::copy(gain, values_.row(c).begin());
  });
}

void GainCurve::read(std::size_t channel, std::size_t first, std::span<float> into) const {
  // Behind the middle of cell k, the line to the next one's: its samples are k * cell + half on.
  const auto row = values_.row(channel);
  const std::size_t cell = weights_.size(), half = cell / 2, last = row.size() - 1;
  const auto weights = std::span(weights_);
  const std::size_t ahead = std::min(into.size(), half - std::min(half, first));
  std::fill_n(into.begin(), ahead, static_cast<float>(row.front()));
  std::size_t i = ahead;
  while (i < into.size() && (first + i - half) / cell < last) {
    const std::size_t k = (first + i - half) / cell, from = (first + i - half) % cell;
    const std::size_t whole = std::min((into.size() - i) / cell, last - k);
    if (from == 0 && whole > 0) {
      run_kernel<draw_lines>(row.data() + k, whole, weights, into.data() + i);
      i += whole * cell;
    } else {
      const std::size_t count = std::min(cell - from, into.size() - i);
      draw_line(static_cast<float>(row[k]), static_cast<float>(row[k + 1]),
                weights.subspan(from, count), into.data() + i);
      i += count;
    }
  }
  std::fill(into.begin() + static_cast<std::ptrdiff_t>(i), into.end(),
            static_cast<float>(row.back()));
}

double left_under_engine_gain(HeardView heard, const ChainJob& job) {
  return left_of(heard, job);
}

double left_under_engine_gain(AudioView heard, const ChainJob& job) {
  return left_of(heard, job);
}

void take_rest(HeardView heard, const GainCurve& gain, const ChainJob& job, Heard& rest) {
  take_rest_of(heard, gain, job, rest);
}

void take_rest(AudioView heard, const GainCurve& gain, const ChainJob& job, AudioArray& rest) {
  take_rest_of(heard, gain, job, rest);
}

double energy_of(HeardView audio) {
  return energy_over_rows(audio);
}

double energy_of(AudioView audio) {
  return energy_over_rows(audio);
}

double energy_of(HeardView audio, const ChainJob& job) {
  return sum_over_parts(job, [&](const ChannelPart& part) {
    return sum_of_squares(audio.row(part.channel).subspan(part.span.first, part.span.length()));
  });
}

double energy_of_mix(const ChainJob& job) {
  return sum_over_parts(job, [&](const ChannelPart& part) {
    return sum_of_squares(job.mix.row(part.channel).subspan(part.span.first, part.span.length()));
  });
}

double energy_db(double ratio) {
  return 10.0 * std::log10(std::max(ratio, 1e-30));
}

}  // namespace verdel::internal
