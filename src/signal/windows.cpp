#include "signal/windows.hpp"

#include <cmath>
#include <numbers>

namespace verdel::internal {
namespace {

std::vector<double> raised_cosine(std::size_t length, std::size_t period) {
  std::vector<double> window(length);
  for (std::size_t n = 0; n < length; ++n) {
    const double phase = 2.0 * std::numbers::pi * static_cast<double>(n);
    window[n] = 0.5 - 0.5 * std::cos(phase / static_cast<double>(period));
  }
  return window;
}

}  // namespace

std::vector<double> get_window(std::size_t length) {
  return raised_cosine(length, length);
}

std::vector<double> hanning(std::size_t length) {
  if (length == 1) return {1.0};
  return raised_cosine(length, length - 1);
}

}  // namespace verdel::internal
