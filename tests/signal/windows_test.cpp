#include "signal/windows.hpp"

#include <gtest/gtest.h>

namespace verdel {
namespace {

void expect_near(const std::vector<double>& actual, const std::vector<double>& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < actual.size(); ++i) EXPECT_NEAR(actual[i], expected[i], 1e-15);
}

TEST(Windows, KnownShapes) {
  expect_near(get_window(4), {0.0, 0.5, 1.0, 0.5});
  expect_near(hanning(5), {0.0, 0.5, 1.0, 0.5, 0.0});
  expect_near(hanning(1), {1.0});
}

TEST(Windows, ShiftedPeriodicWindowsAddUpToAConstant) {
  constexpr std::size_t kLength = 2048;
  const auto window = get_window(kLength);
  for (const std::size_t hop : {256u, 512u, 1024u}) {
    for (std::size_t n = 0; n < hop; ++n) {
      double sum = 0.0;
      for (std::size_t i = n; i < kLength; i += hop) sum += window[i];
      EXPECT_NEAR(sum, 0.5 * static_cast<double>(kLength / hop), 1e-13);
    }
  }
}

}  // namespace
}  // namespace verdel
