#include "support/moving_average.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace verdel::internal {
namespace {

// Whole numbers: their sums are exact in any order, so that the comparison needs no tolerance.
std::vector<double> whole_numbers(std::size_t length) {
  std::mt19937 random(static_cast<unsigned>(length));
  std::uniform_int_distribution<int> number(-1000, 1000);
  std::vector<double> values(length);
  for (auto& value : values) value = number(random);
  return values;
}

double value_at(const std::vector<double>& x, std::int64_t position) {
  const auto n = static_cast<std::int64_t>(x.size());
  while (position < 0 || position >= n) {
    position = position < 0 ? -1 - position : 2 * n - 1 - position;
  }
  return x[static_cast<std::size_t>(position)];
}

TEST(MovingAverage, EqualsThePlainLoopOverEveryWindow) {
  for (const std::size_t length : {1u, 2u, 3u, 7u, 16u, 50u}) {
    const auto x = whole_numbers(length);
    for (std::size_t size = 1; size <= 5 * length + 3; ++size) {
      const auto y = testing::moving_average(x, size);
      for (std::size_t i = 0; i < length; ++i) {
        double sum = 0.0;
        for (std::size_t k = 0; k < size; ++k) {
          sum +=
              value_at(x, static_cast<std::int64_t>(i + k) - static_cast<std::int64_t>(size / 2));
        }
        ASSERT_EQ(y[i], sum / static_cast<double>(size))
            << "length " << length << " size " << size << " sample " << i;
      }
    }
  }
}

TEST(MovingAverage, HoldsNothingOfWhatHasLeftTheWindow) {
  std::mt19937 random(1);
  std::uniform_real_distribution<double> loud(-1.0, 1.0);
  std::vector<double> x(4000, 0.0);
  for (std::size_t i = 0; i < 1500; ++i) x[i] = loud(random);
  for (std::size_t i = 3000; i < x.size(); ++i) x[i] = 1e-18 * loud(random);
  for (const std::size_t size : {9u, 64u, 501u}) {
    const auto y = testing::moving_average(x, size);
    for (std::size_t i = 1500 + size; i < 3000 - size; ++i) ASSERT_EQ(y[i], 0.0);
    for (std::size_t i = 3000 + size; i < y.size(); ++i) ASSERT_LT(std::abs(y[i]), 1e-18);
  }
}

}  // namespace
}  // namespace verdel::internal
