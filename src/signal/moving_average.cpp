#include "signal/moving_average.hpp"

#include <cassert>

namespace verdel::internal {

void uniform_filter1d(std::span<const double> input, std::size_t size, EdgeMode mode,
                      std::span<double> output) {
  assert(input.size() == output.size());
  const double count = static_cast<double>(size);
  for_each_window_sum(
      input.size(), size, mode, [input](std::size_t i) { return input[i]; },
      [output, count](std::size_t i, double sum) { output[i] = sum / count; });
}

}  // namespace verdel::internal
