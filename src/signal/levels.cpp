#include "signal/levels.hpp"

#include <algorithm>
#include <cmath>
#include <span>

#include "signal/sums.hpp"

namespace verdel::internal {
namespace {

// Sums are closed after so many elements, so that rounding grows with the blocks and not with the
// samples.
constexpr std::size_t kBlock = 4096;

template <class Real>
VERDEL_INLINE double largest_magnitude(const Real* values, std::size_t count) {
  Real peak = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const Real magnitude = std::abs(values[i]);
    peak = magnitude > peak ? magnitude : peak;
  }
  return static_cast<double>(peak);
}

double decibels(double value) {
  return value <= 0.0 ? -999.0 : 20.0 * std::log10(value);
}

template <class Real>
Levels levels_of(RowsView<const Real> audio) {
  if (audio.empty()) return {-999.0, -999.0};
  double peak = 0.0, squares = 0.0;
  for (std::size_t r = 0; r < audio.rows(); ++r) {
    for (std::size_t first = 0; first < audio.columns(); first += kBlock) {
      const std::span<const Real> block =
          audio.row(r).subspan(first, std::min(kBlock, audio.columns() - first));
      peak = std::max(peak, run_kernel<largest_magnitude<Real>>(block.data(), block.size()));
      squares += sum_of_squares(block);
    }
  }
  // A comparison passes over what is not a number; the sum of squares keeps it, and is one
  // otherwise.
  if (std::isnan(squares)) peak = squares;
  const double count = static_cast<double>(audio.rows()) * static_cast<double>(audio.columns());
  return {decibels(peak), decibels(std::sqrt(squares / count))};
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

}  // namespace verdel::internal
