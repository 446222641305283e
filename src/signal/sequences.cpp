#include "signal/sequences.hpp"

#include <algorithm>
#include <cassert>

namespace verdel::internal {

std::vector<double> linspace(double a, double b, std::size_t count) {
  std::vector<double> values(count, a);
  if (count < 2) return values;
  const double steps = static_cast<double>(count - 1);
  for (std::size_t i = 1; i + 1 < count; ++i) {
    values[i] = a + static_cast<double>(i) * (b - a) / steps;
  }
  values.back() = b;
  return values;
}

std::vector<std::int64_t> linspace_floor(std::int64_t a, std::int64_t b, std::size_t count) {
  assert(a <= b);
  std::vector<std::int64_t> values(count, a);
  if (count < 2) return values;
  const auto steps = static_cast<std::int64_t>(count - 1);
  const std::int64_t whole = (b - a) / steps, rest = (b - a) % steps;
  std::int64_t i = 0;
  for (auto& value : values) {
    value = a + i * whole + i * rest / steps;
    ++i;
  }
  return values;
}

std::vector<double> geomspace(double a, double b, std::size_t count) {
  assert(a > 0.0 && b > 0.0);
  std::vector<double> values = linspace(std::log10(a), std::log10(b), count);
  for (auto& value : values) value = std::pow(10.0, value);
  if (count >= 1) values.front() = a;
  if (count >= 2) values.back() = b;
  return values;
}

double interp(double position, std::span<const double> xp, std::span<const double> fp) {
  assert(!xp.empty() && xp.size() == fp.size());
  const auto above = std::upper_bound(xp.begin(), xp.end(), position);
  if (above == xp.begin()) return fp.front();
  if (above == xp.end()) return fp.back();
  const auto left = static_cast<std::size_t>(above - xp.begin()) - 1;
  const double slope = (fp[left + 1] - fp[left]) / (xp[left + 1] - xp[left]);
  return fp[left] + slope * (position - xp[left]);
}

std::size_t searchsorted(std::span<const double> sorted, double value) {
  return static_cast<std::size_t>(std::lower_bound(sorted.begin(), sorted.end(), value) -
                                  sorted.begin());
}

}  // namespace verdel::internal
