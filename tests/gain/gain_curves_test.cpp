#include "gain/gain_curves.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "signal/moving_average.hpp"

namespace verdel {
namespace {

using Doubles = std::vector<double>;

Doubles noise(std::size_t length, unsigned seed, double low = -1.0, double high = 1.0) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> value(low, high);
  Doubles values(length);
  for (auto& x : values) x = value(random);
  return values;
}

Doubles times(Doubles values, double factor) {
  for (auto& x : values) x *= factor;
  return values;
}

TEST(LeastSquaresGain, EqualsTheQuotientOfPlainAverages) {
  const auto bt = noise(300, 1), bm = noise(300, 2);
  for (const std::size_t gw : {1u, 3u, 8u, 41u, 299u, 700u}) {
    Doubles cross(bt.size()), power(bt.size()), average(bt.size()), expected(bt.size());
    std::transform(bm.begin(), bm.end(), bt.begin(), cross.begin(), std::multiplies<>());
    std::transform(bt.begin(), bt.end(), bt.begin(), power.begin(), std::multiplies<>());
    uniform_filter1d(cross, gw, EdgeMode::kReflect, expected);
    uniform_filter1d(power, gw, EdgeMode::kReflect, average);
    for (std::size_t i = 0; i < bt.size(); ++i) {
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
  const Doubles silence(500, 0.0);
  const Case cases[] = {
      {"a factor", times(tap, 0.7), tap, 0.7},
      {"opposite phase", times(tap, -1.0), tap, 0.02},
      {"far too loud", times(tap, 80.0), tap, 50.0},
      {"silent mix", silence, tap, 0.02},
      {"silent tap", tap, silence, 1.0},
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
  Doubles given = g;
  const double* storage = given.data();
  const auto unchanged = finish_gain(std::move(given), {.sr = 8000.0});
  EXPECT_EQ(unchanged.data(), storage);
  EXPECT_EQ(unchanged, g);

  const GainCurveSettings only_attack{.sw = 21, .sr = 8000.0, .attack_ms = 5.0};
  const GainCurveSettings only_release{.sw = 21, .sr = 8000.0, .release_ms = 5.0};
  EXPECT_EQ(finish_gain(g, only_attack), averaged);
  EXPECT_EQ(finish_gain(g, only_release), averaged);

  GainCurveSettings both{.sw = 21, .sr = 8000.0, .attack_ms = 3.0, .release_ms = 9.0};
  EXPECT_EQ(finish_gain(g, both), ballistic_smooth(g, 8000.0, 3.0, 9.0));
  both.lookahead_ms = 0.0;
  EXPECT_EQ(finish_gain(g, both), ballistic_smooth(g, 8000.0, 3.0, 9.0, 0.0));
  EXPECT_NE(finish_gain(g, both), ballistic_smooth(g, 8000.0, 3.0, 9.0));
}

// The smoother with every array written out: extended, cut, filtered behind its look-ahead copies.
Doubles plain_ballistics(Doubles g, int sr, double attack_ms, double release_ms, double ahead_ms) {
  const std::size_t n = g.size();
  const auto block = static_cast<std::size_t>(std::max(sr / 4000, 1));
  for (auto& value : g) value = std::max(value, 1e-12);
  while (g.size() % block != 0) g.push_back(g.back());
  Doubles x;
  for (std::size_t k = 0; k < g.size(); k += block) {
    double log_sum = 0.0;
    for (std::size_t i = k; i < k + block; ++i) log_sum += std::log(g[i]);
    x.push_back(20.0 * std::log10(std::exp(log_sum / static_cast<double>(block))));
  }
  const double rate = static_cast<double>(sr) / static_cast<double>(block);
  const double a = std::exp(-1.0 / std::max(rate * attack_ms * 0.001, 1e-9));
  const double b = std::exp(-1.0 / std::max(rate * release_ms * 0.001, 1e-9));
  const auto ahead = static_cast<std::size_t>(
      std::nearbyint(sr * std::max(ahead_ms, 0.0) * 0.001 / static_cast<double>(block)));
  x.insert(x.end(), ahead, x.back());
  double state = x.front();
  Doubles blocks;
  for (const double v : x) {
    state = v < state ? a * state + (1.0 - a) * v : b * state + (1.0 - b) * v;
    blocks.push_back(std::pow(10.0, state / 20.0));
  }
  blocks.erase(blocks.begin(), blocks.begin() + static_cast<std::ptrdiff_t>(ahead));
  Doubles smoothed;
  for (std::size_t i = 0; i < n; ++i) {
    const std::size_t k = i / block, next = std::min(k + 1, blocks.size() - 1);
    const double part = static_cast<double>(i % block) / static_cast<double>(block);
    smoothed.push_back((1.0 - part) * blocks[k] + part * blocks[next]);
  }
  return smoothed;
}

TEST(BallisticSmooth, EqualsThePlainFilter) {
  for (const int sr : {3000, 7999, 8000, 44100, 96000}) {
    for (const std::size_t length : {1u, 5u, 11u, 12u, 1000u}) {
      auto g = noise(length, 5, -0.1, 2.0);  // with gains of no logarithm
      g.front() = 0.5;
      for (const double ahead_ms : {-3.0, 0.0, 0.6, 5.0}) {
        for (const double attack_ms : {1e-13, 2.0}) {
          const auto expected = plain_ballistics(g, sr, attack_ms, 20.0, ahead_ms);
          const auto actual = ballistic_smooth(g, sr, attack_ms, 20.0, ahead_ms);
          for (std::size_t i = 0; i < length; ++i) {
            // Levels of 240 dB carry a rounding of 240 * 2^-52 through the power of ten.
            ASSERT_NEAR(actual[i], expected[i], 1e-12 * expected[i]) << sr << " " << length;
          }
        }
      }
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
}  // namespace verdel
