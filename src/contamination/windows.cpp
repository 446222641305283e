#include "contamination/windows.hpp"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <tuple>
#include <utility>

#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

// Sums formed at a time: three rows of doubles that stay in the first-level cache.
constexpr std::size_t kTile = 512;

constexpr std::size_t kEnds = std::tuple_size_v<decltype(GridWindow::ends)>;

VERDEL_INLINE void add_shifted(const double* __restrict from, std::size_t shift, std::size_t count,
                               double* __restrict to) {
  for (std::size_t i = 0; i < count; ++i) to[i] = from[i] + from[i + shift];
}

VERDEL_INLINE void add_shifted_to(const double* __restrict from, std::size_t shift,
                                  std::size_t count, double* __restrict to) {
  for (std::size_t i = 0; i < count; ++i) to[i] += from[i + shift];
}

// The ends of the windows whose first values are values[0], values[1], ..., with `between` values
// between their two ends.
VERDEL_INLINE void tile_ends(const double* __restrict values, std::size_t between,
                             const double* weights, std::size_t count, float* __restrict ends) {
  const double nearest = weights[0], second = weights[1], third = weights[2], last = weights[3];
  static_assert(kEnds == 4);
  const double* const __restrict right = values + kEnds + between;
  for (std::size_t i = 0; i < count; ++i) {
    ends[i] = static_cast<float>(
        nearest * (values[i + 3] + right[i]) + second * (values[i + 2] + right[i + 1]) +
        third * (values[i + 1] + right[i + 2]) + last * (values[i] + right[i + 3]));
  }
}

// Sums of `length` values each by doubling: runs of 1, 2, 4, ... values are the sums of two runs of
// half their length, and the window is put together from the runs in its length's binary digits. A
// dozen additions at most, all of them on whole vectors, and nothing of what has left a window is
// in it.
VERDEL_INLINE void tile_wholes(double* runs, double* longer_runs, std::size_t length,
                               std::size_t count, double* __restrict sums,
                               float* __restrict whole) {
  // The length is odd, so its lowest digit is always there.
  for (std::size_t i = 0; i < count; ++i) sums[i] = runs[i];
  std::size_t covered = 1, run_count = count + length - 1;
  for (std::size_t run = 2; run <= length; run *= 2) {
    run_count -= run / 2;
    add_shifted(runs, run / 2, run_count, longer_runs);
    std::swap(runs, longer_runs);
    if ((length & run) == 0) continue;
    add_shifted_to(runs, covered, count, sums);
    covered += run;
  }
  for (std::size_t i = 0; i < count; ++i) whole[i] = static_cast<float>(sums[i]);
}

}  // namespace

GridWindow GridWindow::over_cells(double width) {
  assert(width >= 1.0);
  const double beyond_middle = (width - 1.0) / 2.0, reach = std::floor(beyond_middle);
  return {
      .reach = static_cast<std::size_t>(reach), .ends = {beyond_middle - reach}, .width = width};
}

GridWindow GridWindow::over_samples(double width) {
  assert(width >= 4.0);
  // The cubic through points k - 1 .. k + 2 has the integral (-1, 13, 13, -1) / 24 over k .. k + 1.
  // Added up over all steps to point `last` that leaves weights of 1 with 25/24, 1/2, -1/24 at the
  // end; the rest of the window is the integral over the first t of one more step.
  const double last = std::floor(width / 2), t = width / 2 - last;
  const double t2 = t * t, t3 = t2 * t, t4 = t3 * t;
  return {.reach = static_cast<std::size_t>(last) - 2,
          .ends = {25.0 / 24 - (t4 / 4 - t3 + t2) / 6,
                   1.0 / 2 + (t4 / 4 - 2 * t3 / 3 - t2 / 2 + 2 * t) / 2,
                   -1.0 / 24 - (t4 / 4 - t3 / 3 - t2) / 2, (t4 / 4 - t2 / 2) / 6},
          .width = width};
}

void window_sums(std::span<const float> padded, const GridWindow& window,
                 std::vector<double>& scratch, std::span<float> whole, std::span<float> ends) {
  assert(padded.size() == whole.size() + 2 * window.padding() && ends.size() == whole.size());
  const std::size_t length = 2 * window.reach + 1;
  // A tile shorter than its window would mostly sum what its neighbours sum as well.
  const std::size_t tile = std::max(kTile, length);
  const std::size_t row = tile + length + 2 * kEnds;
  scratch.resize(std::max(scratch.size(), 3 * row));
  double* const values = scratch.data();
  for (std::size_t first = 0; first < whole.size(); first += tile) {
    const std::size_t count = std::min(tile, whole.size() - first);
    std::copy_n(padded.data() + first, count + 2 * window.padding(), values);
    run_kernel<tile_ends>(values, length, window.ends.data(), count, ends.data() + first);
    run_kernel<tile_wholes>(values + kEnds, values + row, length, count, values + 2 * row,
                            whole.data() + first);
  }
}

}  // namespace verdel::internal
