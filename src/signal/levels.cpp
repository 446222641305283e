#include "signal/levels.hpp"

#include <algorithm>
#include <cmath>

#include "signal/sums.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kBlock = LevelSums::kBlock;

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
  LevelSums sums;
  for (std::size_t r = 0; r < audio.rows(); ++r) {
    for (std::size_t first = 0; first < audio.columns(); first += kBlock) {
      sums.add(audio.row(r).subspan(first, std::min(kBlock, audio.columns() - first)));
    }
  }
  return sums.levels();
}

template <class Real>
std::optional<BadSample> first_non_finite_of(RowsView<const Real> audio) {
  for (std::size_t first = 0; first < audio.columns(); first += kBlock) {
    const std::size_t length = std::min(kBlock, audio.columns() - first);
    std::optional<BadSample> bad;
    for (std::size_t channel = 0; channel < audio.rows(); ++channel) {
      const std::span<const Real> block = audio.row(channel).subspan(first, length);
      if (all_finite(block)) continue;
      const auto found = std::ranges::find_if_not(block, [](Real v) { return std::isfinite(v); });
      const std::size_t frame = first + static_cast<std::size_t>(found - block.begin());
      if (!bad || frame < bad->frame) bad = BadSample{channel, frame};
    }
    if (bad) return bad;
  }
  return std::nullopt;
}

}  // namespace

template <class Real>
void LevelSums::add_block(std::span<const Real> block) {
  peak_ = std::max(peak_, run_kernel<largest_magnitude<Real>>(block.data(), block.size()));
  squares_ += sum_of_squares(block);
  count_ += static_cast<double>(block.size());
}

void LevelSums::add(std::span<const double> block) {
  add_block(block);
}
void LevelSums::add(std::span<const float> block) {
  add_block(block);
}

Levels LevelSums::levels() const {
  if (count_ == 0.0) return {-999.0, -999.0};
  // A comparison passes over what is not a number; the sum of squares keeps it, and is one
  // otherwise.
  const double peak = std::isnan(squares_) ? squares_ : peak_;
  return {decibels(peak), decibels(std::sqrt(squares_ / count_))};
}

Levels levels(AudioView audio) {
  return levels_of(audio);
}
Levels levels(StemView audio) {
  return levels_of(audio);
}

std::optional<BadSample> first_non_finite(AudioView audio) {
  return first_non_finite_of(audio);
}
std::optional<BadSample> first_non_finite(StemView audio) {
  return first_non_finite_of(audio);
}

}  // namespace verdel::internal
