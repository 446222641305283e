#include "excerpt/excerpt_suggestion.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <numbers>
#include <random>
#include <utility>
#include <vector>

namespace verdel {
namespace {

// A struck tone and noise, both dying away.
struct Hit {
  double beat, hz, noise, decay;
};
constexpr Hit kick(double beat) {
  return {beat, 60.0, 0.0, 20.0};
}
constexpr Hit snare(double beat) {
  return {beat, 190.0, 0.6, 25.0};
}
constexpr Hit hat(double beat) {
  return {beat, 0.0, 0.3, 80.0};
}

const std::vector<Hit> kClicks = {hat(0), hat(1), hat(2), hat(3)};
const std::vector<Hit> kAccents = {snare(0), hat(1), hat(2), hat(3)};
const std::vector<Hit> kRock = {kick(0), kick(2.5), snare(1), snare(3), hat(0), hat(0.5),
                                hat(1),  hat(1.5),  hat(2),   hat(2.5), hat(3), hat(3.5)};

// One bar of hits over and over from half a second on, louder from `loud` seconds on.
AudioArray pattern(const std::vector<Hit>& hits, double bpm, int sr, double seconds,
                   double loud = 1e9) {
  auto mix = AudioArray::zeros(2, static_cast<std::size_t>(seconds * sr));
  std::mt19937 random(1);
  for (double bar = 0.5; bar < seconds; bar += 240.0 / bpm) {
    for (const Hit& hit : hits) {
      const double time = bar + hit.beat * 60.0 / bpm;
      const auto first = static_cast<std::size_t>(std::lround(time * sr));
      for (std::size_t i = 0; i < static_cast<std::size_t>(sr / 8); ++i) {
        if (first + i >= mix.columns()) break;
        const double age = static_cast<double>(i) / sr;
        const double noise = 2.0 * static_cast<double>(random()) / 4294967295.0 - 1.0;
        const double tone = std::sin(2.0 * std::numbers::pi * hit.hz * age);
        const double level = (time < loud ? 0.3 : 0.5) * std::exp(-hit.decay * age);
        mix.row(0)[first + i] += level * (tone + hit.noise * noise);
        mix.row(1)[first + i] += 0.7 * level * (tone + hit.noise * noise);
      }
    }
  }
  return mix;
}

class KnownTempo : public testing::TestWithParam<int> {};

TEST_P(KnownTempo, IsFoundAndTheExcerptIsWholeBars) {
  const int sr = GetParam();
  for (const auto& hits : {kClicks, kRock}) {
    for (const double bpm : {70.0, 84.5, 99.0, 118.0, 120.0, 133.0, 161.3, 190.0}) {
      SCOPED_TRACE(testing::Message() << bpm << (hits.size() > 4 ? " rock" : " clicks"));
      const auto mix = pattern(hits, bpm, sr, 18.0);
      const auto found = suggest_excerpt(mix.view(), sr, 8.0);
      const double octave = std::clamp(std::round(std::log2(found.bpm / bpm)), -1.0, 1.0);
      EXPECT_NEAR(found.bpm / (bpm * std::exp2(octave)), 1.0, 0.005);
      EXPECT_EQ(found.confidence, 1.0);
      EXPECT_GE(found.bars, 2);
      EXPECT_NEAR(static_cast<double>(found.length), found.bars * 240.0 / found.bpm * sr, 0.501);
      EXPECT_LE(found.start + found.length, mix.columns());
    }
  }
}
INSTANTIATE_TEST_SUITE_P(Rates, KnownTempo, testing::Values(44100, 48000, 96000),
                         testing::PrintToStringParamName());

TEST(SuggestExcerpt, TakesTheBarsNearestToTheWishFromADownbeatOfTheLoudestPart) {
  constexpr int kRate = 22050;
  const auto mix = pattern(kAccents, 120.0, kRate, 40.0, 16.4);
  for (const auto& [target, bars] : {std::pair{3.3, 2}, {5.9, 2}, {6.5, 4}, {20.0, 8}, {1e3, 16}}) {
    const auto found = suggest_excerpt(mix.view(), kRate, target);
    EXPECT_EQ(found.bars, bars) << target;
    if (bars > 8) continue;  // longer than the loud part
    const double start = static_cast<double>(found.start) / kRate;
    EXPECT_GE(start, 16.4);
    // A frame of the curve is 93 ms long and shows an onset up to that much before it sounds.
    EXPECT_NEAR(std::remainder(start - 0.5, 2.0), 0.0, 0.1);
  }
  const auto none = suggest_excerpt(mix.view(), kRate, 2.0);
  EXPECT_EQ(none.bars, 0);
  EXPECT_EQ(none.length, 2u * kRate);
  EXPECT_NEAR(none.bpm, 120.0, 0.6);
}

TEST(SuggestExcerpt, ClaimsNothingInDoubt) {
  constexpr int kRate = 8000;
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  const auto clicks = pattern(kClicks, 100.0, kRate, 20.0);
  auto broken = AudioArray::copy_of(clicks.view()), endless = AudioArray::copy_of(clicks.view());
  broken.row(1)[90001] = kNaN;
  endless.row(0)[70000] = -kInfinity;
  const auto silent = AudioArray::zeros(2, 20 * kRate);
  const std::vector<AudioView> doubtful = {silent.view(), broken.view(), endless.view(),
                                           silent.view().column_range(0, 0),
                                           clicks.view().column_range(0, 4 * kRate - 1)};
  for (const AudioView mix : doubtful) {
    const std::size_t most = mix.columns(), three = std::min<std::size_t>(24000, most);
    for (const auto& [target, length] : {std::pair{3.0001, three},
                                         {1e300, most},
                                         {kInfinity, most},
                                         {-1.0, std::size_t{0}},
                                         {kNaN, std::size_t{0}}}) {
      const auto found = suggest_excerpt(mix, kRate, target);
      EXPECT_EQ(found.length, length) << target;
      EXPECT_EQ(found.start, 0u);
      EXPECT_EQ(found.bpm, 0.0);
      EXPECT_EQ(found.bars, 0);
      EXPECT_EQ(found.confidence, 0.0);
    }
  }
  // All numbers of bars are equally far from it.
  EXPECT_EQ(suggest_excerpt(clicks.view(), kRate, 1e300).bars, 2);
  const std::atomic<bool> flag{true};
  EXPECT_THROW(suggest_excerpt(clicks.view(), kRate, 4.0, StopToken(flag)), Cancelled);
}

}  // namespace
}  // namespace verdel
