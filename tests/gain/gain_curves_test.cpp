#include "gain/gain_curves.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "signal/moving_average.hpp"
#include "support/noise.hpp"

namespace verdel::internal {
namespace {

using testing::noise;
using Doubles = std::vector<double>;

Doubles times(Doubles values, double factor) {
  for (auto& x : values) x *= factor;
  return values;
}

TEST(LeastSquaresGain, EqualsTheQuotientOfPlainAverages) {
  const auto bt = noise(300, 1), bm = noise(300, 2);
  for (const std::size_t gw : {1u, 8u, 41u, 700u}) {
    Doubles cross(300), power(300), expected(300), average(300);
    for (std::size_t i = 0; i < 300; ++i) {
      cross[i] = bm[i] * bt[i];
      power[i] = bt[i] * bt[i];
    }
    uniform_filter1d(cross, gw, EdgeMode::kReflect, expected);
    uniform_filter1d(power, gw, EdgeMode::kReflect, average);
    for (std::size_t i = 0; i < 300; ++i) {
      expected[i] = std::clamp(expected[i] / average[i], 0.02, 50.0);
    }
    EXPECT_EQ(ls_gain(bm, bt, {.gw = gw}), expected) << gw;
  }
}

TEST(LeastSquaresGain, KnownAnswers) {
  const auto tap = noise(500, 3);
  struct Case {
    const char* name;
    Doubles mix, tap;
    double gain;
  };
  const Case cases[] = {
      {"a factor", times(tap, 0.7), tap, 0.7},
      {"far too loud", times(tap, 80.0), tap, 50.0},
      {"opposite phase", times(tap, -1.0), tap, 0.02},
      {"silent tap", tap, Doubles(500), 1.0},
      {"just below the floor", tap, Doubles(500, 0.999e-7), 1.0},
      {"just above the floor", Doubles(500, 2.002e-7), Doubles(500, 1.001e-7), 2.0}};
  for (const auto& c : cases) {
    for (const std::size_t sw : {0u, 61u, 5000u}) {
      for (const double gain : ls_gain(c.mix, c.tap, {.gw = 31, .sw = sw})) {
        ASSERT_NEAR(gain, c.gain, 1e-12 * c.gain) << c.name << " " << sw;
      }
    }
  }
}

TEST(FinishGain, ChoosesOneSmoother) {
  const auto g = noise(400, 4, 0.1, 2.0);
  Doubles averaged(g.size());
  uniform_filter1d(g, 21, EdgeMode::kReflect, averaged);
  EXPECT_EQ(finish_gain(g, {.sr = 8000.0}), g);
  EXPECT_EQ(finish_gain(g, {.sw = 21, .sr = 8000.0, .attack_ms = 5.0}), averaged);
  EXPECT_EQ(finish_gain(g, {.sw = 21, .sr = 8000.0, .release_ms = 5.0}), averaged);
  GainCurveSettings both{.sw = 21, .sr = 8000.0, .attack_ms = 3.0, .release_ms = 9.0};
  EXPECT_EQ(finish_gain(g, both), ballistic_smooth(g, 8000.0, 3.0, 9.0));
  both.lookahead_ms = 0.0;
  EXPECT_EQ(finish_gain(g, both), ballistic_smooth(g, 8000.0, 3.0, 9.0, 0.0));
}

// Down by 20 dB and back, at the joins of blocks of a quarter of a millisecond: each block comes
// nearer by its time constant, look-ahead begins earlier, and blocks are joined by lines.
TEST(BallisticSmooth, FollowsStepsByItsTimeConstants) {
  constexpr std::size_t kBlock = 12, kDown = 100, kUp = 180, kBlocks = 400;  // at 48 kHz
  Doubles g(kBlocks * kBlock + 5, 1.0);
  std::fill(g.begin() + kDown * kBlock, g.begin() + kUp * kBlock, 0.1);
  for (const auto& [ahead_ms, ahead] : {std::pair{-3.0, 0u}, {0.0, 0u}, {5.0, 20u}}) {
    const auto smoothed = ballistic_smooth(g, 48000.0, 2.0, 20.0, ahead_ms);
    ASSERT_EQ(smoothed.size(), g.size());
    for (std::size_t k = 0; k < kBlocks; ++k) {
      const auto blocks = [&](std::size_t from, std::size_t to) {
        return to < from ? 0.0 : static_cast<double>(to - from);
      };
      const double fallen = blocks(kDown, std::min(k + ahead + 1, kUp));
      const double risen = blocks(kUp, k + ahead + 1);
      const double level = -20.0 * (1.0 - std::exp(-fallen / 8.0)) * std::exp(-risen / 80.0);
      EXPECT_NEAR(20.0 * std::log10(smoothed[k * kBlock]), level, 1e-9) << k;
      EXPECT_NEAR(smoothed[k * kBlock + 3],
                  0.75 * smoothed[k * kBlock] + 0.25 * smoothed[(k + 1) * kBlock], 1e-15);
    }
  }
}

TEST(BallisticSmooth, KnownAnswers) {
  EXPECT_TRUE(ballistic_smooth({}, 48000.0, 1.0, 1.0).empty());
  const auto g = noise(100, 6, 0.1, 2.0);
  EXPECT_EQ(ballistic_smooth(g, 48000.0, 0.0, 5.0), g);
  EXPECT_EQ(ballistic_smooth(g, 48000.0, 2.0, 5.0), ballistic_smooth(g, 48000.0, 2.0, 5.0, 2.0));
  for (const double gain : ballistic_smooth(Doubles(1000, 0.3), 48000.0, 2.0, 50.0)) {
    EXPECT_NEAR(gain, 0.3, 1e-15);
  }
}

}  // namespace
}  // namespace verdel::internal
