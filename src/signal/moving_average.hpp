#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
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

/// One block of a signal, read once, and the sums over its end: to_end[r] is that of r .. size - 1.
struct SummedBlock {
  explicit SummedBlock(std::size_t size) : values(size), to_end(size) {}

  std::vector<double> values, to_end;
};

template <class Value>
void read_block(std::ptrdiff_t first, std::size_t length, const Value& value,
                std::vector<double>& values) {
  const std::size_t size = values.size();
  if (first >= 0 && static_cast<std::size_t>(first) + size <= length) {
    const auto begin = static_cast<std::size_t>(first);
    for (std::size_t r = 0; r < size; ++r) values[r] = static_cast<double>(value(begin + r));
    return;
  }
  for (std::size_t r = 0; r < size; ++r) {
    values[r] =
        static_cast<double>(value(reflected_index(first + static_cast<std::ptrdiff_t>(r), length)));
  }
}

/// The sums of the windows that begin at i - reach; `size` at least 1.
template <class Value, class Store>
void for_each_sum_from(std::size_t length, std::size_t reach, std::size_t size, Value value,
                       Store store) {
  SummedBlock block(size), next(size);
  const auto begin_of = [&](std::size_t at) {
    return static_cast<std::ptrdiff_t>(at) - static_cast<std::ptrdiff_t>(reach);
  };
  read_block(begin_of(0), length, value, block.values);
  double to_end = 0.0;
  for (std::size_t r = size; r-- > 0;) block.to_end[r] = to_end += block.values[r];
  for (std::size_t at = 0; at < length; at += size) {
    read_block(begin_of(at + size), length, value, next.values);
    // Forwards for this block's windows, backwards for the next one's, side by side: neither sum
    // waits for the other's additions.
    const std::size_t count = std::min(size, length - at);
    double from_begin = 0.0;
    to_end = 0.0;
    for (std::size_t r = 0; r < count; ++r) {
      store(at + r, block.to_end[r] + from_begin);
      from_begin += next.values[r];
      next.to_end[size - 1 - r] = to_end += next.values[size - 1 - r];
    }
    std::swap(block, next);
  }
}

}  // namespace detail

/// Hands store(i, sum) the sum of the `size` values around each i in 0 .. length - 1: of those at
/// i - size / 2 .. i - size / 2 + size - 1, so that an even size looks one sample further back than
/// ahead. `value(j)` gives the value at 0 <= j < length and is called about once a
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
