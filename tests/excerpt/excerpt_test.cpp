#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <tuple>

#include "excerpt/excerpt_suggestion.hpp"
#include "excerpt/loudest_stretch.hpp"
#include "excerpt/onset_curve.hpp"
#include "excerpt/tempo.hpp"
#include "signal/windows.hpp"
#include "support/noise.hpp"

namespace verdel::internal {
namespace {

// One bar of noise struck on its beats, over and over from half a second on, louder from `loud`
// seconds on.
AudioArray pattern(const std::vector<double>& beats, double bpm, int sr, double seconds,
                   double loud = 1e9) {
  auto mix = AudioArray::zeros(2, static_cast<std::size_t>(seconds * sr));
  const auto noise = testing::noise(static_cast<std::size_t>(sr / 8), 1);
  for (double bar = 0.5; bar < seconds; bar += 240.0 / bpm) {
    for (const double beat : beats) {
      const double time = bar + beat * 60.0 / bpm, level = time < loud ? 0.1 : 0.17;
      const auto first = static_cast<std::size_t>(std::lround(time * sr));
      for (std::size_t i = 0; i < noise.size() && first + i < mix.columns(); ++i) {
        const double age = static_cast<double>(i) / sr;
        mix.row(i % 2)[first + i] += level * noise[i] * std::exp(-60.0 * age);
      }
    }
  }
  return mix;
}

const std::vector<double> kClicks = {0, 1, 2, 3}, kAccents = {0, 0, 0, 0, 0, 1, 2, 3},
                          kRock = {0, 2.5, 1, 3, 0, 0.5, 1, 1.5, 2, 2.5, 3, 3.5};

TEST(SuggestExcerpt, FindsAKnownTempoAndGivesWholeBars) {
  for (const auto& [hits, sr, bpm] :
       {std::tuple{kClicks, 48000, 70.0}, {kRock, 44100, 99.0}, {kRock, 96000, 161.3}}) {
    const auto mix = pattern(hits, bpm, sr, 18.0);
    const auto found = suggest_excerpt(mix.view(), sr, 8.0);
    const double octave = std::clamp(std::round(std::log2(found.bpm / bpm)), -1.0, 1.0);
    EXPECT_NEAR(found.bpm / (bpm * std::exp2(octave)), 1.0, 0.005) << bpm;
    EXPECT_EQ(found.confidence, 1.0);
    EXPECT_NEAR(static_cast<double>(found.length), found.bars * 240.0 / found.bpm * sr, 0.501);
    EXPECT_LE(found.start + found.length, mix.columns());
  }
}

TEST(SuggestExcerpt, TakesTheBarsNearestToTheWishFromADownbeatOfTheLoudestPart) {
  constexpr int kRate = 22050;
  const auto mix = pattern(kAccents, 120.0, kRate, 40.0, 16.4);
  for (const auto& [target, bars] :
       {std::pair{3.3, 2}, {5.9, 2}, {6.5, 4}, {20.0, 8}, {1e3, 16}, {1e300, 2}, {2.0, 0}}) {
    const auto found = suggest_excerpt(mix.view(), kRate, target);
    EXPECT_EQ(found.bars, bars) << target;
    EXPECT_NEAR(found.bpm, 120.0, 0.6);
    if (bars == 0 || target > 20.0) continue;  // or longer than the loud part
    const double start = static_cast<double>(found.start) / kRate;
    EXPECT_GE(start, 16.4);
    // A frame of the curve is 93 ms long and shows an onset up to that much before it sounds.
    EXPECT_NEAR(std::remainder(start - 0.5, 2.0), 0.0, 0.1);
  }
}

TEST(SuggestExcerpt, ClaimsNothingInDoubt) {
  constexpr int kRate = 8000;
  const auto clicks = pattern(kClicks, 100.0, kRate, 20.0);
  const auto silent = AudioArray::zeros(2, 20 * kRate);
  auto broken = AudioArray::copy_of(clicks.view());
  broken.row(1)[90001] = std::nan("");
  const AudioView kDoubtful[] = {silent.view(), broken.view(), silent.view().column_range(0, 0),
                                 clicks.view().column_range(0, 4 * kRate - 1)};
  for (const AudioView mix : kDoubtful) {
    const std::size_t most = mix.columns(), three = std::min<std::size_t>(24000, most), none = 0;
    for (const auto& [target, length] :
         {std::pair{3.0001, three}, {HUGE_VAL, most}, {-1.0, none}, {std::nan(""), none}}) {
      const auto found = suggest_excerpt(mix, kRate, target);
      EXPECT_EQ(std::tie(found.start, found.length, found.bpm, found.bars, found.confidence),
                (std::tuple{0u, length, 0.0, 0, 0.0}));
    }
  }
  const std::atomic<bool> flag{true};
  EXPECT_THROW(suggest_excerpt(clicks.view(), kRate, 4.0, StopToken(flag)), Cancelled);
}

// A pulse every 40 frames from frame 7 on, every fourth twice as strong from the third on.
TEST(FindTempo, OfAPulseTrain) {
  const auto tempo_of = [](std::size_t length, double fps) {
    std::vector<double> curve(length, -0.03);
    for (std::size_t i = 7; i < length; i += 40) curve[i] += i % 160 == 87 ? 2.0 : 1.0;
    return find_tempo(curve, fps);
  };
  const auto tempo = tempo_of(4000, 64.0);
  EXPECT_NEAR(tempo.value().period, 40.0, 0.05);
  EXPECT_NEAR(tempo->first_downbeat, 87.0, 0.1);
  // Quarters vote that are as long as four of the slowest beats, 4 * 64 frames.
  EXPECT_EQ(tempo_of(4 * 256, 64.0)->confidence, 1.0);
  EXPECT_EQ(tempo_of(4 * 256 - 1, 64.0)->confidence, 0.0);
  EXPECT_FALSE(tempo_of(20, 64.0));   // shorter than the fastest beat
  EXPECT_FALSE(tempo_of(4000, 1.0));  // both ends of the range are one frame
  EXPECT_FALSE(find_tempo(std::vector<double>(4000, 1e200), 64.0));
}

// Parabolas with their vertex between, on and beyond the places of the range, where half a place is
// as far as it may go; no neighbour on the right, none on the left, equals without curvature.
TEST(FindTempo, RefinesAPeriodToTheVertexOfTheParabola) {
  using Values = std::vector<double>;
  EXPECT_NEAR(refined_period(Values{0, 4.64, 4.96, 4.96, 4.64}, 0, 5), 2.5, 1e-12);
  EXPECT_NEAR(refined_period(Values{1, 2.75, 3, 1.75, 1}, 1, 4), 5.0 / 3.0, 1e-12);
  EXPECT_EQ(refined_period(Values{0, 10, 18, 24, 28, 30}, 1, 4), 3.5);
  EXPECT_EQ(refined_period(Values{0, 1, 2, 3, 4, 5}, 1, 6), 5.0);
  EXPECT_EQ(refined_period(Values(6, 1.0), 0, 4), 0.0);
  EXPECT_EQ(refined_period(Values(6, 1.0), 2, 5), 2.0);
}

// An impulse is as loud in every bin as the window is at its place, which gives each value of the
// curve; here it stands on the join of two blocks of frames.
TEST(OnsetCurve, ShowsHowAnImpulseComesIntoTheFrames) {
  constexpr std::size_t kPlace = 1024 * kOnsetHop + 1500;
  auto mix = AudioArray::zeros(2, kPlace + 3000);
  mix.row(0)[kPlace] = 0.75;
  mix.row(0)[9000] = -(mix.row(1)[9000] = 1.0);  // cancelled by the other channel
  const auto window = hanning(2048);
  const auto level = [&](std::size_t frame) {  // 0 in front of the frame and behind it
    const std::size_t place = kPlace - frame * kOnsetHop;
    return place < 2048 ? 0.375 * window[place] : 0.0;
  };
  const auto flux = onset_curve(mix.view());
  EXPECT_EQ(flux.size(), (mix.columns() - 2048) / kOnsetHop);
  for (std::size_t i = 0; i < flux.size(); ++i) {
    EXPECT_NEAR(flux[i], 1025.0 * std::max(0.0, level(i + 1) - level(i)), 1e-10) << i;
  }
}

// The first of equal stretches; at its ends the mix is reflected.
TEST(LoudestStretch, IsTheFirstOfTheHighestSmoothedEnergy) {
  auto mix = AudioArray::zeros(2, 13);
  std::ranges::copy(std::vector<double>{2, 1, 0, 0, 0, 2, 2, 0, 2, 2, 0, 0, 1}, mix.data());
  using Case = std::array<std::size_t, 3>;
  for (const auto& [length, smoothing, start] :
       {Case{1, 1, 0}, Case{2, 1, 5}, Case{6, 1, 4}, Case{2, 2, 0}, Case{4, 3, 5}, Case{5, 4, 5},
        Case{12, 500, 1}, Case{3, 500, 4}, Case{2, 5, 6}, Case{1, 60, 3}}) {
    EXPECT_EQ(loudest_stretch(mix.view(), length, smoothing), start) << length << " " << smoothing;
  }
}

}  // namespace
}  // namespace verdel::internal
