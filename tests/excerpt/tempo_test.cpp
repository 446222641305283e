#include "excerpt/tempo.hpp"

#include <gtest/gtest.h>

#include <cmath>

namespace verdel::internal {
namespace {

TEST(Autocorrelation, EqualsThePlainSums) {
  for (const std::size_t length : {1u, 2u, 17u, 256u, 257u}) {
    std::vector<double> curve(length);
    for (std::size_t i = 0; i < length; ++i) curve[i] = std::cos(static_cast<double>(i * i));
    const auto sums = autocorrelation(curve, length - 1);
    for (std::size_t lag = 0; lag < length; ++lag) {
      double sum = 0.0;
      for (std::size_t i = 0; i + lag < length; ++i) sum += curve[i] * curve[i + lag];
      EXPECT_NEAR(sums[lag], sum, 1e-12) << "length " << length << " lag " << lag;
    }
  }
}

TEST(RefinedPeriod, IsTheVertexOfTheParabola) {
  for (const double vertex : {9.6, 10.0, 10.5}) {
    std::vector<double> values(20);
    for (std::size_t i = 0; i < values.size(); ++i) {
      values[i] = 5.0 - 0.1 * std::pow(static_cast<double>(i) - vertex, 2.0);
    }
    EXPECT_NEAR(refined_period(values, 3, 18), vertex, 1e-12);
  }
  const std::vector<double> rising{0, 1, 2, 3, 4, 5}, level(6, 1.0);
  EXPECT_EQ(refined_period(rising, 1, 6), 5.0);  // no neighbour on the right
  EXPECT_EQ(refined_period(level, 0, 4), 0.0);   // none on the left
  EXPECT_EQ(refined_period(level, 2, 5), 2.0);   // the first of equals; no curvature
  // The range ends on a slope and the vertex lies beyond: half a place is as far as it may go.
  EXPECT_EQ(refined_period(std::vector<double>{0, 10, 18, 24, 28, 30}, 1, 4), 3.5);
}

// A pulse every 40 frames from frame 7 on, every fourth twice as strong from the third on.
std::vector<double> pulses(std::size_t length) {
  std::vector<double> curve(length, -0.03);
  for (std::size_t i = 7; i < length; i += 40) curve[i] += i % 160 == 87 ? 2.0 : 1.0;
  return curve;
}

TEST(FindTempo, OfAPulseTrain) {
  const auto tempo = find_tempo(pulses(4000), 64.0);
  ASSERT_TRUE(tempo);
  EXPECT_NEAR(tempo->period, 40.0, 0.05);
  EXPECT_NEAR(tempo->first_downbeat, 87.0, 0.1);
  // Quarters vote that are as long as four of the slowest beats, 4 * 64 frames.
  EXPECT_EQ(find_tempo(pulses(4 * 256), 64.0)->confidence, 1.0);
  EXPECT_EQ(find_tempo(pulses(4 * 256 - 1), 64.0)->confidence, 0.0);

  EXPECT_FALSE(find_tempo(pulses(20), 64.0));   // shorter than the fastest beat
  EXPECT_FALSE(find_tempo(pulses(4000), 1.0));  // both ends of the range are one frame
  EXPECT_FALSE(find_tempo(std::vector<double>(4000, 1e200), 64.0));
}

}  // namespace
}  // namespace verdel::internal
