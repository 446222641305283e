#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <vector>

/// Sums over centred windows whose width is no whole number of grid steps.
///
/// The report looks at its signals on coarse grids: a band at the band's own rate, an envelope in
/// cells of some samples. A window of so many samples then ends between two grid points.
namespace verdel::internal {

/// The weights of a symmetric window around a grid point: 1 up to `reach` points away on either
/// side, then ends[0], ends[1], ...
struct GridWindow {
  std::size_t reach = 0;
  std::array<double, 4> ends = {};
  double width = 1.0;  ///< in grid steps; the sum of all weights

  /// The sum over `width` >= 1 cells that each hold the mean of one step of the signal: whole
  /// cells, and a part of one more at either end.
  static GridWindow over_cells(double width);
  /// The integral over `width` >= 4 steps of a smooth signal that is known at the grid points, by
  /// the cubic through four of them at a time. Between the points a signal that is sampled no more
  /// often than it must be moves too much for straight lines.
  static GridWindow over_samples(double width);

  /// Grid points that a sum reads beyond its own one, on either side.
  std::size_t padding() const { return reach + ends.size(); }
};

/// Around padded[window.padding() + i]: whole[i] = the sum of the values that weigh 1, and ends[i]
/// = the weighted sum of those at the window's ends; together they are the window's sum. Formed in
/// double precision. They come apart because weights of a cubic may be negative: beside something
/// loud just outside of the window, the sum of squares in it would come out below zero.
///
/// Shapes:  padded holds whole.size() + 2 * window.padding() values, ends as many as whole.
/// Overlap: none allowed. Scratch is enlarged as needed; one per thread.
void window_sums(std::span<const float> padded, const GridWindow& window,
                 std::vector<double>& scratch, std::span<float> whole, std::span<float> ends);

}  // namespace verdel::internal
