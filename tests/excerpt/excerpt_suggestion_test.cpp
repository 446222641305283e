#include "excerpt/excerpt_suggestion.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <numbers>
#include <random>
#include <tuple>
#include <utility>
#include <vector>

namespace verdel::internal {
namespace {

// A struck tone and noise, both dying away.
struct Hit {
  double beat, hz, noise, decay;
};
std::vector<Hit> hits_at(std::initializer_list<double> kicks, std::initializer_list<double> snares,
                         std::initializer_list<double> hats) {
  std::vector<Hit> hits;
  for (const double beat : kicks) hits.push_back({beat, 60.0, 0.0, 20.0});
  for (const double beat : snares) hits.push_back({beat, 190.0, 0.6, 25.0});
  for (const double beat : hats) hits.push_back({beat, 0.0, 0.3, 80.0});
  return hits;
}

const auto kClicks = hits_at({}, {}, {0, 1, 2, 3});
const auto kAccents = hits_at({}, {0}, {1, 2, 3});
const auto kRock = hits_at({0, 2.5}, {1, 3}, {0, 0.5, 1, 1.5, 2, 2.5, 3, 3.5});

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

TEST(SuggestExcerpt, FindsAKnownTempoAndGivesWholeBars) {
  for (const auto& [hits, sr] : {std::pair{kClicks, 48000}, {kRock, 44100}, {kRock, 96000}}) {
    for (const double bpm : {70.0, 99.0, 118.0, 161.3, 190.0}) {
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
  const auto clicks = pattern(kClicks, 100.0, kRate, 20.0);
  const auto silent = AudioArray::zeros(2, 20 * kRate);
  auto broken = AudioArray::copy_of(clicks.view());
  broken.row(1)[90001] = kNaN;
  const AudioView kDoubtful[] = {silent.view(), broken.view(), silent.view().column_range(0, 0),
                                 clicks.view().column_range(0, 4 * kRate - 1)};
  for (const AudioView mix : kDoubtful) {
    const std::size_t most = mix.columns();
    for (const auto& [target, length] : {std::pair{3.0001, std::min<std::size_t>(24000, most)},
                                         {HUGE_VAL, most},
                                         {-1.0, std::size_t{0}},
                                         {kNaN, std::size_t{0}}}) {
      const auto found = suggest_excerpt(mix, kRate, target);
      EXPECT_EQ(std::tie(found.start, found.length, found.bpm, found.bars, found.confidence),
                (std::tuple{0u, length, 0.0, 0, 0.0}));
    }
  }
  // All numbers of bars are equally far from it.
  EXPECT_EQ(suggest_excerpt(clicks.view(), kRate, 1e300).bars, 2);
  const std::atomic<bool> flag{true};
  EXPECT_THROW(suggest_excerpt(clicks.view(), kRate, 4.0, StopToken(flag)), Cancelled);
}

}  // namespace
}  // namespace verdel::internal
