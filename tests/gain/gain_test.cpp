#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>

#include "gain/band_masks.hpp"
#include "gain/gain_curves.hpp"
#include "gain/shared_gain.hpp"
#include "signal/levels.hpp"
#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/moving_average.hpp"
#include "support/noise.hpp"
#include "support/precision.hpp"

namespace verdel::internal {
namespace {

using testing::moving_average;
using Doubles = std::vector<double>;

Doubles product(Doubles values, const Doubles& factors) {
  std::ranges::transform(values, factors, values.begin(), std::multiplies());
  return values;
}

Doubles ls_gain_of(std::span<const double> bm, std::span<const double> bt,
                   const GainCurveSettings& settings) {
  Doubles gain(bm.size());
  ls_gain(bm, bt, settings, gain);
  return gain;
}

Doubles finished(const Doubles& raw, const GainCurveSettings& settings) {
  Doubles gain(raw.size());
  finish_gain(raw, settings, gain);
  return gain;
}

// Noise whose gain leaves its range on both sides, and taps whose mean square lies on both sides of
// the least that counts as signal.
TEST(GainCurves, AreQuotientsOfPlainAveragesHeldToTheirRange) {
  for (const double tap : {1.0, 0.01, 0.999e-7, 1.001e-7, 0.0}) {
    const auto bm = testing::noise(300, 2);
    const Doubles bt = tap < 1e-6 ? Doubles(300, tap) : testing::noise(300, 1, -tap, tap);
    for (const std::size_t gw : {1u, 8u, 41u, 700u}) {
      Doubles expected = moving_average(product(bm, bt), gw);
      const Doubles power = moving_average(product(bt, bt), gw);
      for (std::size_t i = 0; i < 300; ++i) {
        expected[i] = std::clamp(power[i] > 1e-14 ? expected[i] / power[i] : 1.0, 0.02, 50.0);
      }
      EXPECT_EQ(ls_gain_of(bm, bt, {.gw = gw, .attack_ms = 1.0}), expected) << gw << " " << tap;
      EXPECT_EQ(ls_gain_of(bm, bt, {.gw = gw, .sw = 61, .release_ms = 1.0}),
                moving_average(expected, 61));
    }
  }
}

// Down by 20 dB and back, at the joins of blocks of a quarter of a millisecond: each block comes
// nearer by its time constant, look-ahead begins earlier, and blocks are joined by lines.
TEST(GainCurves, BallisticsFollowStepsByTheirTimeConstants) {
  constexpr std::size_t kBlock = 12, kDown = 100, kUp = 180, kBlocks = 400;  // at 48 kHz
  Doubles g(kBlocks * kBlock + 5, 1.0);
  std::fill(g.begin() + kDown * kBlock, g.begin() + kUp * kBlock, 0.1);
  const GainCurveSettings settings{.sw = 21, .sr = 48e3, .attack_ms = 2.0, .release_ms = 20.0};
  for (const auto& [smoothed, ahead] : {std::pair{finished(g, settings), 8u},
                                        {ballistic_smooth(g, 48e3, 2.0, 20.0, -3.0), 0u},
                                        {ballistic_smooth(g, 48e3, 2.0, 20.0, 5.0), 20u}}) {
    ASSERT_EQ(smoothed.size(), g.size());
    for (std::size_t k = 0; k < kBlocks; ++k) {
      const double fallen = static_cast<double>(std::clamp(k + ahead + 1, kDown, kUp) - kDown);
      const double risen = static_cast<double>(std::max(k + ahead + 1, kUp) - kUp);
      const double level = -20.0 * (1.0 - std::exp(-fallen / 8.0)) * std::exp(-risen / 80.0);
      const double now = smoothed[k * kBlock];
      EXPECT_NEAR(20.0 * std::log10(now), level, 1e-9) << k;
      EXPECT_NEAR(smoothed[k * kBlock + 3], now + (smoothed[(k + 1) * kBlock] - now) / 4, 1e-15);
    }
  }
  EXPECT_EQ(ballistic_smooth(g, 48e3, 0.0, 5.0), g);
}

struct Song {
  explicit Song(std::size_t samples) : mix(testing::noise_array(2, samples, 1)) {
    taps.push_back({"a", testing::rounded(testing::noise_array(2, samples, 2).view())});
    taps.push_back({"b", testing::rounded(testing::noise_array(2, samples, 3).view())});
  }
  AudioArray mix;
  StemMap taps;
};

AudioArray gain_of(const Song& s, int sr, double window_ms = 30.0, double smooth_ms = 120.0,
                   const StopToken& stop = {}) {
  return shared_single_band_gain(s.mix.view(), sum_of_taps(s.mix.view(), s.taps), sr, window_ms,
                                 smooth_ms, stop);
}

TEST(SharedGain, IsTheFinishedFitOfTheTapSumChannelByChannel) {
  const struct {
    double window_ms, smooth_ms;
    std::size_t gw, sw;
  } kCases[] = {{30.25, 120.0, 243, 961},
                {0.25, 0.0, 3, 0},
                {0.1, -1.0, 3, 0},
                {0.5, 0.01, 5, 3},
                {1e300, 1e300, 0x10000000000001, 0x10000000000001},
                {1e-9, 1e-9, 3, 3}};
  const Song s(9000);
  const AudioArray a = testing::widened(s.taps[0].audio.view()),
                   b = testing::widened(s.taps[1].audio.view());
  AudioArray sum = AudioArray::uninitialised(2, 9000);
  std::ranges::transform(a.flat(), b.flat(), sum.flat().begin(), std::plus());
  for (const auto& c : kCases) {
    const AudioArray gain = gain_of(s, 8000, c.window_ms, c.smooth_ms);
    AudioArray rest = AudioArray::copy_of(s.mix.view());
    for (const std::size_t channel : {0U, 1U}) {
      const auto expected =
          ls_gain_of(s.mix.row(channel), sum.row(channel), {.gw = c.gw, .sw = c.sw});
      EXPECT_TRUE(std::ranges::equal(gain.row(channel), expected)) << c.window_ms;
    }
    for (std::size_t i = 0; i < rest.size(); ++i) {
      rest.flat()[i] -= a.flat()[i] * gain.flat()[i] + b.flat()[i] * gain.flat()[i];
    }
    EXPECT_EQ(level_behind_models(s.mix.view(), s.taps, gain.view()), levels(rest.view()).rms);
  }
}

TEST(SharedGain, SaysWhatIsWrongAndStopsWhenAsked) {
  const char* const kEmpty = "single-band model needs channels, samples and taps";
  const char* const kTap = "single-band taps must match the finite full mix";
  const std::pair<const char*, std::function<void(Song&)>> kCases[] = {
      {kEmpty, [](Song& s) { s.taps.clear(); }},
      {kEmpty, [](Song& s) { s = Song(0); }},
      {"non-finite single-band mix",
       [](Song& s) { s.taps[0].audio.row(0)[0] = -HUGE_VALF, s.mix.row(1)[99] = -HUGE_VAL; }},
      {kTap, [](Song& s) { s.taps[1].audio = StemArray::zeros(2, 101); }},
      {kTap, [](Song& s) { s.taps[1].audio.row(1)[50] = HUGE_VALF; }},
      {"non-finite single-band model", [](Song& s) {  // products beyond all numbers, of both signs
         for (const std::size_t i : {50U, 51U}) {
           s.taps[0].audio.row(0)[i] = i == 50 ? 1e30F : -1e30F;
           s.mix.row(0)[i] = 1e300;
         }
       }}};
  Song s(100);
  for (const auto& [message, spoil] : kCases) {
    s = Song(100);
    spoil(s);
    EXPECT_EQ(testing::failure_of<std::exception>([&] { gain_of(s, 1000); }), message);
  }
  const std::atomic<bool> stop = true;
  EXPECT_THROW(gain_of(s, 1000, 30.0, 120.0, StopToken(stop)), Cancelled);
}

// At 1280 Hz bins stand 1 Hz apart and the centres at 40, 160 and 640 Hz; at 8 Hz all centres lie
// above the last bin or on it.
TEST(StreamedBandMasks, CrossoversAreRaisedCosines) {
  const struct {
    double sr;
    std::size_t bands, band, bin;
    double weight;
  } kCases[] = {{1280, 3, 0, 40, 1},
                {1280, 3, 1, 40, 0},
                {1280, 3, 2, 640, 1},
                {1280, 3, 0, 100, 0.5},
                {1280, 3, 1, 70, 0.146446609407},
                {1280, 3, 0, 400, 4e-33},
                {1280, 3, 0, 70, 0.853553390593},
                {8, 128, 0, 639, 1},
                {8, 128, 127, 640, 1},
                {44100, 128, 11, 2, 0.991478950139}};
  for (const auto& c : kCases) {
    const StreamedBandMasks bank(1280, c.sr, c.bands);
    const double weight = bank[c.band][c.bin];
    EXPECT_NEAR(weight, c.weight, 1e-12) << c.band << " " << c.bin;
    EXPECT_EQ(weight == 0.0, c.weight == 0.0) << "there is next to nothing above a band";
  }
}

}  // namespace
}  // namespace verdel::internal
