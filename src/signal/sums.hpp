#pragma once

#include <cstddef>
#include <span>

#include "signal/instruction_sets.hpp"

namespace verdel::internal {

/// Terms 0 .. count - 1 added up in eight lanes, term i in lane i mod 8, which are added up at the
/// end with the terms that fill no whole row of lanes behind them: whole vectors at a time, in one
/// order on every processor. For kernels (see instruction_sets.hpp).
template <class Term>
VERDEL_INLINE double lane_sum(std::size_t count, Term term) {
  constexpr std::size_t kLanes = 8;
  double lanes[kLanes] = {};
  const std::size_t whole = count / kLanes * kLanes;
  for (std::size_t i = 0; i < whole; i += kLanes) {
    for (std::size_t lane = 0; lane < kLanes; ++lane) lanes[lane] += term(i + lane);
  }
  double sum = 0.0;
  for (const double lane : lanes) sum += lane;
  for (std::size_t i = whole; i < count; ++i) sum += term(i);
  return sum;
}

/// Sums of products in double precision.
double sum_of_squares(std::span<const float> values);
double sum_of_squares(std::span<const double> values);
double sum_of_products(std::span<const float> p, std::span<const float> q);

/// Whether no value is infinite or not a number.
bool all_finite(std::span<const float> values);
bool all_finite(std::span<const double> values);

}  // namespace verdel::internal
