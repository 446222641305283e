#include "inputs/levels.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <span>

namespace verdel {
namespace {

// Sums and maxima run in so many lanes, element i in lane i mod kLanes, which any vector width
// divides.
constexpr std::size_t kLanes = 16;
// Sums are closed after so many elements, so that rounding grows with the blocks and not with the
// samples.
constexpr std::size_t kBlock = 4096;

struct Measure {
  double peak = 0.0, squares = 0.0;
};

// At most kBlock elements.
template <class Real>
Measure measure_block(std::span<const Real> values) {
  std::array<double, kLanes> peaks{}, squares{};
  const auto add = [&](std::size_t lane, double value) {
    const double magnitude = std::abs(value);
    peaks[lane] = magnitude > peaks[lane] ? magnitude : peaks[lane];
    squares[lane] += value * value;
  };
  const std::size_t whole = values.size() - values.size() % kLanes;
  for (std::size_t i = 0; i < whole; i += kLanes) {
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
      add(lane, static_cast<double>(values[i + lane]));
    }
  }
  for (std::size_t i = whole; i < values.size(); ++i) {
    add(i - whole, static_cast<double>(values[i]));
  }
  return {*std::max_element(peaks.begin(), peaks.end()),
          std::accumulate(squares.begin(), squares.end(), 0.0)};
}

double decibels(double value) {
  return value <= 0.0 ? -999.0 : 20.0 * std::log10(value);
}

template <class Real>
Levels levels_of(RowsView<const Real> audio) {
  if (audio.empty()) return {-999.0, -999.0};
  Measure total;
  for (std::size_t r = 0; r < audio.rows(); ++r) {
    const std::span<const Real> row = audio.row(r);
    for (std::size_t first = 0; first < row.size(); first += kBlock) {
      const Measure block = measure_block(row.subspan(first, std::min(kBlock, row.size() - first)));
      total.peak = std::max(total.peak, block.peak);
      total.squares += block.squares;
    }
  }
  // A comparison passes over what is not a number; the sum of squares keeps it, and is one
  // otherwise.
  if (std::isnan(total.squares)) total.peak = total.squares;
  const double count = static_cast<double>(audio.rows()) * static_cast<double>(audio.columns());
  return {decibels(total.peak), decibels(std::sqrt(total.squares / count))};
}

bool all_finite(std::span<const double> values) {
  // Zero times a value is zero if the value is finite and not a number otherwise.
  std::array<double, kLanes> sums{};
  const std::size_t whole = values.size() - values.size() % kLanes;
  for (std::size_t i = 0; i < whole; i += kLanes) {
    for (std::size_t lane = 0; lane < kLanes; ++lane) sums[lane] += 0.0 * values[i + lane];
  }
  for (std::size_t i = whole; i < values.size(); ++i) sums[0] += 0.0 * values[i];
  return std::accumulate(sums.begin(), sums.end(), 0.0) == 0.0;
}

}  // namespace

Levels levels(AudioView audio) {
  return levels_of(audio);
}
Levels levels(RowsView<const float> audio) {
  return levels_of(audio);
}

std::optional<BadSample> first_non_finite(AudioView audio) {
  for (std::size_t first = 0; first < audio.columns(); first += kBlock) {
    const std::size_t length = std::min(kBlock, audio.columns() - first);
    std::optional<BadSample> bad;
    for (std::size_t channel = 0; channel < audio.rows(); ++channel) {
      const std::span<const double> block = audio.row(channel).subspan(first, length);
      if (all_finite(block)) continue;
      const auto found = std::ranges::find_if_not(block, [](double v) { return std::isfinite(v); });
      const std::size_t frame = first + static_cast<std::size_t>(found - block.begin());
      if (!bad || frame < bad->frame) bad = BadSample{channel, frame};
    }
    if (bad) return bad;
  }
  return std::nullopt;
}

}  // namespace verdel
