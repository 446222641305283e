#include "signal/windows.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace verdel::internal {
namespace {

TEST(Windows, KnownShapes) {
  const auto near = [](const std::vector<double>& shape) {
    return ::testing::Pointwise(::testing::DoubleNear(1e-15), shape);
  };
  EXPECT_THAT(get_window(4), near({0.0, 0.5, 1.0, 0.5}));
  EXPECT_THAT(hanning(5), near({0.0, 0.5, 1.0, 0.5, 0.0}));
  EXPECT_EQ(hanning(1), std::vector{1.0});
}

}  // namespace
}  // namespace verdel::internal
