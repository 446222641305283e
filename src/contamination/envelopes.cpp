#include "contamination/envelopes.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cmath>
#include <limits>

#include "contamination/windows.hpp"
#include "signal/instruction_sets.hpp"
#include "signal/moving_average.hpp"
#include "signal/sums.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kBlock = 1024;  // samples reduced at a time, a multiple of every cell

VERDEL_INLINE void add_row(const float* __restrict row, std::size_t count, double* __restrict sum) {
  for (std::size_t i = 0; i < count; ++i) sum[i] += static_cast<double>(row[i]);
}

// Sums of squares of `cell` neighbours, by adding halves until one value of each cell is left.
VERDEL_INLINE void square_and_fold(double* __restrict values, std::size_t count, std::size_t cell) {
  for (std::size_t i = 0; i < count; ++i) values[i] *= values[i];
  for (; cell > 1; cell /= 2) {
    count /= 2;
    for (std::size_t i = 0; i < count; ++i) values[i] = values[2 * i] + values[2 * i + 1];
  }
}

}  // namespace

void mean_square_cells(RowsView<const float> rows, std::size_t cell, std::span<float> cells) {
  assert(std::has_single_bit(cell) && cell <= kBlock);
  assert(cells.size() == (rows.columns() + cell - 1) / cell);
  auto mono = AudioArray::uninitialised(1, kBlock);
  const auto row_count = static_cast<double>(rows.rows());
  for (std::size_t first = 0; first < rows.columns(); first += kBlock) {
    const std::size_t count = std::min(kBlock, rows.columns() - first);
    std::ranges::fill(mono.flat(), 0.0);
    for (std::size_t r = 0; r < rows.rows(); ++r) {
      run_kernel<add_row>(rows.row(r).data() + first, count, mono.data());
    }
    run_kernel<square_and_fold>(mono.data(), kBlock, cell);
    for (std::size_t begin = 0; begin < count; begin += cell) {
      const auto samples = static_cast<double>(std::min(cell, count - begin));
      cells[(first + begin) / cell] =
          static_cast<float>(mono.data()[begin / cell] / (samples * row_count * row_count));
    }
  }
}

EnvelopeCurve envelope_curve(std::span<const float> cells, double window_cells) {
  const GridWindow window = GridWindow::over_cells(window_cells);
  const std::size_t count = cells.size(), padding = window.padding();
  std::vector<float> padded(count + 2 * padding);
  for (std::size_t i = 0; i < padded.size(); ++i) {
    const auto cell = static_cast<std::ptrdiff_t>(i) - static_cast<std::ptrdiff_t>(padding);
    padded[i] = cells[reflected_index(cell, count)];
  }
  EnvelopeCurve curve;
  curve.deviation.resize(count);
  std::vector<float> ends(count);
  std::vector<double> scratch;
  window_sums(padded, window, scratch, curve.deviation, ends);
  double mean = 0.0;
  for (std::size_t i = 0; i < count; ++i) {
    const float square = (curve.deviation[i] + ends[i]) / static_cast<float>(window.width);
    curve.deviation[i] = std::sqrt(square);
    mean += static_cast<double>(curve.deviation[i]);
  }
  mean /= static_cast<double>(count);
  for (float& value : curve.deviation)
    value = static_cast<float>(static_cast<double>(value) - mean);
  curve.energy = sum_of_squares(curve.deviation);
  // What single precision makes of a constant is no movement.
  const double rounding = mean * static_cast<double>(std::numeric_limits<float>::epsilon());
  if (curve.energy <= static_cast<double>(count) * rounding * rounding) curve.energy = 0.0;
  return curve;
}

double correlation(const EnvelopeCurve& p, const EnvelopeCurve& q) {
  assert(p.deviation.size() == q.deviation.size());
  if (p.energy == 0.0 || q.energy == 0.0) return std::numeric_limits<double>::quiet_NaN();
  const double product = sum_of_products(p.deviation, q.deviation);
  // Two roots, since the product of two tiny energies may be 0.
  return std::clamp(product / (std::sqrt(p.energy) * std::sqrt(q.energy)), -1.0, 1.0);
}

}  // namespace verdel::internal
