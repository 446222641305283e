#pragma once

#include <span>
#include <vector>

#include "signal/moving_average.hpp"

namespace verdel::internal::testing {

inline std::vector<double> moving_average(std::span<const double> x, std::size_t size) {
  std::vector<double> averages(x.size());
  for_each_window_sum(
      x.size(), size, [x](std::size_t i) { return x[i]; },
      [&](std::size_t i, double sum) { averages[i] = sum / static_cast<double>(size); });
  return averages;
}

}  // namespace verdel::internal::testing
