#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

/// Spaced sequences, tables and the rounding that the system uses everywhere.
namespace verdel::internal {

/// `count` evenly spaced values from a to b, both met exactly; {a} for a count of 1.
std::vector<double> linspace(double a, double b, std::size_t count);

/// The same in whole numbers, a <= b, each value floored: bounds that cut a .. b into count - 1
/// ranges whose lengths differ by one at most.
std::vector<std::int64_t> linspace_floor(std::int64_t a, std::int64_t b, std::size_t count);

/// `count` values in geometric progression from a to b (both above 0), both met exactly.
std::vector<double> geomspace(double a, double b, std::size_t count);

/// The value at `position` of the straight lines through (xp[i], fp[i]), xp ascending and not
/// empty; a position outside the table takes the value of the nearer end.
double interp(double position, std::span<const double> xp, std::span<const double> fp);

/// The first index at which `sorted` holds a value not below `value`; its size if there is none.
std::size_t searchsorted(std::span<const double> sorted, double value);

/// The nearest whole number, halves to the even one.
inline double round_to_even(double value) {
  return std::nearbyint(value);
}

}  // namespace verdel::internal
