#include "excerpt/onset_curve.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

// An impulse is as loud in every bin as the window is at its place, which gives each value of the
// curve; here it stands on the join of two blocks of frames.
TEST(OnsetCurve, ShowsHowAnImpulseComesIntoTheFrames) {
  constexpr std::size_t kPlace = 1024 * kOnsetHop + 1500;
  auto mix = AudioArray::zeros(2, kPlace + 3000);
  mix.row(0)[kPlace] = 0.5;
  mix.row(1)[kPlace] = 0.25;
  mix.row(0)[9000] = 1.0;  // cancelled by the other channel
  mix.row(1)[9000] = -1.0;
  const auto window = hanning(2048);
  const auto level = [&](std::size_t frame) {
    const std::size_t first = frame * kOnsetHop;
    return first <= kPlace && kPlace < first + 2048 ? 0.375 * window[kPlace - first] : 0.0;
  };
  const auto flux = onset_curve(mix.view());
  EXPECT_EQ(flux.size(), (mix.columns() - 2048) / kOnsetHop);
  for (std::size_t i = 0; i < flux.size(); ++i) {
    EXPECT_NEAR(flux[i], 1025.0 * std::max(0.0, level(i + 1) - level(i)), 1e-10) << i;
  }
}

}  // namespace
}  // namespace verdel::internal
