#include "gain/shared_gain.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <random>

#include "gain/gain_curves.hpp"
#include "support/errors.hpp"

namespace verdel {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

AudioArray noise(std::size_t channels, std::size_t samples, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  auto audio = AudioArray::uninitialised(channels, samples);
  for (auto& x : audio.flat()) x = value(random);
  return audio;
}

struct Song {
  AudioArray mix;
  StemMap taps;
};

Song song(std::size_t channels, std::size_t samples, std::size_t stems) {
  Song s{noise(channels, samples, 1), {}};
  for (unsigned i = 0; i < stems; ++i) {
    s.taps.push_back({std::string("tap ") + std::to_string(i), noise(channels, samples, 2 + i)});
  }
  return s;
}

TEST(SharedGain, IsTheFinishedFitOfTheTapSumChannelByChannel) {
  struct Case {
    int sr;
    double window_ms, smooth_ms;
    std::size_t gw, sw;
  };
  const Case cases[] = {{44100, 30.0, 120.0, 1323, 5293},  {48000, 30.0, 120.0, 1441, 5761},
                        {96000, 30.0, 120.0, 2881, 11521}, {8000, 0.25, 0.0, 3, 0},
                        {8000, 0.1, -1.0, 3, 0},           {8000, 0.5, 0.01, 5, 3}};
  for (const auto& c : cases) {
    const Song s = song(3, 5000, 3);
    const auto result =
        shared_single_band_model(s.mix.view(), s.taps, c.sr, c.window_ms, c.smooth_ms);
    for (std::size_t channel = 0; channel < 3; ++channel) {
      std::vector<double> summed(5000);
      for (std::size_t i = 0; i < summed.size(); ++i) {
        for (const auto& tap : s.taps) summed[i] += tap.audio.row(channel)[i];
      }
      const auto gain = ls_gain(s.mix.row(channel), summed, {.gw = c.gw, .sw = c.sw});
      for (std::size_t i = 0; i < summed.size(); ++i) {
        ASSERT_EQ(result.gain.row(channel)[i], gain[i]) << c.sr << " " << c.window_ms;
        double model_sum = 0.0;
        for (std::size_t stem = 0; stem < s.taps.size(); ++stem) {
          const double model = s.taps[stem].audio.row(channel)[i] * gain[i];
          ASSERT_EQ(result.models[stem].audio.row(channel)[i], model);
          model_sum += model;
        }
        ASSERT_EQ(result.model_sum.row(channel)[i], model_sum);
      }
    }
    EXPECT_EQ(result.models[2].name, "tap 2");
  }
}

TEST(SharedGain, TakesAnyWindow) {
  const Song s = song(1, 50, 2);
  for (const double ms : {1e-9, 1e4, 1e300}) {
    const auto result = shared_single_band_model(s.mix.view(), s.taps, 44100, ms, ms);
    for (const double gain : result.gain.flat()) {
      EXPECT_GE(gain, 0.02 * (1.0 - 1e-12));
      EXPECT_LE(gain, 50.0 * (1.0 + 1e-12));
    }
  }
}

// Two taps that cancel each other and a mix that asks for 40 times their sum.
void make_model_overflow(Song& s) {
  s.taps[0].audio.row(0)[50] = 1e308;
  s.taps[1].audio.row(0)[50] = -1e308;
  for (std::size_t i = 0; i < s.mix.size(); ++i) {
    s.mix.flat()[i] = 40.0 * (s.taps[0].audio.flat()[i] + s.taps[1].audio.flat()[i]);
  }
}

TEST(SharedGain, SaysWhatIsWrong) {
  struct Case {
    std::function<void(Song&)> spoil;
    const char* message;
  };
  const char* kEmpty = "single-band model needs channels, samples and taps";
  const char* kTap = "single-band taps must match the finite full mix";
  const char* kMix = "non-finite single-band mix";
  const Case cases[] = {
      {[](Song& s) { s.taps.clear(); }, kEmpty},
      {[](Song& s) { s = song(2, 0, 2); }, kEmpty},
      {[](Song& s) { s = song(0, 100, 2); }, kEmpty},
      {[](Song& s) { s.mix.row(1)[99] = kNan; }, kMix},
      {[](Song& s) { s.mix.row(0)[0] = s.taps[0].audio.row(0)[0] = -kInfinity; }, kMix},
      {[](Song& s) { s.taps[1].audio = noise(2, 101, 1); }, kTap},
      {[](Song& s) { s.taps[1].audio = noise(1, 100, 1); }, kTap},
      {[](Song& s) { s.taps[1].audio.row(1)[50] = kNan; }, kTap},
      {[](Song& s) { s.taps[0].audio.row(0)[50] = kInfinity; }, kTap},
      {make_model_overflow, "non-finite single-band model"}};
  for (const auto& c : cases) {
    Song s = song(2, 100, 2);
    c.spoil(s);
    try {
      shared_single_band_model(s.mix.view(), s.taps, 1000);
      ADD_FAILURE() << "no failure: " << c.message;
    } catch (const ValueError& e) {
      EXPECT_STREQ(e.what(), c.message);
      EXPECT_TRUE(c.message == kEmpty || c.message == kTap);
    } catch (const FloatingPointError& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
  }
}

TEST(SharedGain, StopsWhenAsked) {
  const std::atomic<bool> stop = true;
  const Song s = song(1, 100, 1);
  EXPECT_THROW(shared_single_band_model(s.mix.view(), s.taps, 1000, 30.0, 120.0, StopToken(stop)),
               Cancelled);
}

}  // namespace
}  // namespace verdel
