#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

/// Moving averages whose every window holds exactly its own values.
///
/// A running sum that adds what enters and subtracts what leaves keeps a rest of 1e-16 of the
/// loudest value it ever saw; in digital silence after sound that rest decides ratios. Here the
/// signal is cut into blocks of the window's size, and a window is the end of one block plus the
/// beginning of the next: a sum from the block's end backwards and one from its beginning forwards
/// (van Herk 1992, Gil & Werman 1993, who did it for maxima). Two or three additions a value,
/// nothing subtracted, nothing that drifts.
namespace verdel::internal {

/// The index inside 0 .. length - 1 that stands at `position`. Beyond its ends a signal is
/// reflected about its edges, the edge value repeated once (b a | a b c | c b), as often as needed.
inline std::size_t reflected_index(std::ptrdiff_t position, std::size_t length) {
  const auto n = static_cast<std::ptrdiff_t>(length);
  if (position >= 0 && position < n) return static_cast<std::size_t>(position);
  std::ptrdiff_t folded = position % (2 * n);
  if (folded < 0) folded += 2 * n;
  return static_cast<std::size_t>(folded < n ? folded : 2 * n - 1 - folded);
}

namespace detail {

/// The sums of the windows that begin at i - reach; `size` at least 1.
template <class Value, class Store>
void for_each_sum_from(std::size_t length, std::size_t reach, std::size_t size, Value value,
                       Store store) {
  const auto n = static_cast<std::ptrdiff_t>(length);
  const auto span = static_cast<std::ptrdiff_t>(size);
  const auto at = [&](std::ptrdiff_t position) -> double {
    return value(reflected_index(position, length));
  };
  std::vector<double> to_block_end(size);
  for (std::size_t block = 0; block < length; block += size) {
    const std::ptrdiff_t first =
        static_cast<std::ptrdiff_t>(block) - static_cast<std::ptrdiff_t>(reach);
    const bool interior = first >= 0 && first + 2 * span <= n;
    double sum = 0.0;
    for (std::ptrdiff_t r = span - 1; r >= 0; --r) {
      sum += interior ? static_cast<double>(value(static_cast<std::size_t>(first + r)))
                      : at(first + r);
      to_block_end[static_cast<std::size_t>(r)] = sum;
    }
    const std::size_t count = std::min(size, length - block);
    double from_block_begin = 0.0;
    store(block, to_block_end[0]);
    for (std::size_t r = 1; r < count; ++r) {
      const std::ptrdiff_t entering = first + span + static_cast<std::ptrdiff_t>(r) - 1;
      from_block_begin +=
          interior ? static_cast<double>(value(static_cast<std::size_t>(entering))) : at(entering);
      store(block + r, to_block_end[r] + from_block_begin);
    }
  }
}

}  // namespace detail

/// Hands store(i, sum) the sum of the `size` values around each i in 0 .. length - 1: of those at
/// i - size / 2 .. i - size / 2 + size - 1, so that an even size looks one sample further back than
/// ahead. `value(j)` gives the value at 0 <= j < length and is called about twice a
/// sample, in order within a block; sums are double precision. The work and the memory grow with
/// the length alone, however large the size.
template <class Value, class Store>
void for_each_window_sum(std::size_t length, std::size_t size, Value value, Store store) {
  if (length == 0 || size == 0) return;
  // A reflected signal repeats every 2 * length values, and each whole period in a window adds the
  // same: only the rest of the window is walked.
  const std::size_t period = 2 * length;
  const std::size_t periods = size / period;
  if (periods == 0) {
    detail::for_each_sum_from(length, size / 2, size, value, store);
    return;
  }
  double total = 0.0;
  for (std::size_t i = 0; i < length; ++i) total += static_cast<double>(value(i));
  const double whole = static_cast<double>(2 * periods) * total;
  const std::size_t rest = size % period;
  if (rest == 0) {
    for (std::size_t i = 0; i < length; ++i) store(i, whole);
    return;
  }
  detail::for_each_sum_from(length, size / 2 % period, rest, value,
                            [&](std::size_t i, double sum) { store(i, whole + sum); });
}

}  // namespace verdel::internal
