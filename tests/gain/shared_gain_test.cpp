#include "gain/shared_gain.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>

#include "gain/gain_curves.hpp"
#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/noise.hpp"

namespace verdel::internal {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

struct Song {
  AudioArray mix;
  StemMap taps;
};

Song song(std::size_t channels, std::size_t samples, unsigned stems) {
  Song s{testing::noise_array(channels, samples, 1), {}};
  for (unsigned i = 0; i < stems; ++i) {
    s.taps.push_back({"tap", testing::noise_array(channels, samples, 2 + i)});
  }
  return s;
}

TEST(SharedGain, KeepsOfTheModelsWhatIsWanted) {
  const Song s = song(2, 13000, 2);
  const auto whole = shared_single_band_model(s.mix.view(), s.taps, 44100);
  for (const SampleSpan kept :
       {SampleSpan{0, 13000}, {0, 1}, {4095, 4097}, {4096, 12288}, {5000, 13000}, {70, 70}}) {
    const auto part =
        shared_single_band_model(s.mix.view(), s.taps, 44100, 30.0, 120.0, StopToken(), kept);
    EXPECT_TRUE(std::ranges::equal(part.model_sum.flat(), whole.model_sum.flat()));
    for (std::size_t stem = 0; stem < 2; ++stem) {
      ASSERT_EQ(part.models[stem].audio.columns(), kept.length());
      for (std::size_t channel = 0; channel < 2; ++channel) {
        EXPECT_TRUE(std::ranges::equal(
            part.models[stem].audio.row(channel),
            whole.models[stem].audio.row(channel).subspan(kept.first, kept.length())));
      }
    }
  }
}

TEST(SharedGain, IsTheFinishedFitOfTheTapSumChannelByChannel) {
  struct Case {
    int sr;
    double window_ms, smooth_ms;
    std::size_t gw, sw;
  };
  const Song s = song(3, 5000, 3);
  for (const Case c :
       {Case{44100, 30.0, 120.0, 1323, 5293}, Case{48000, 30.0, 120.0, 1441, 5761},
        Case{8000, 0.25, 0.0, 3, 0}, Case{8000, 0.1, -1.0, 3, 0}, Case{8000, 0.5, 0.01, 5, 3}}) {
    const auto result =
        shared_single_band_model(s.mix.view(), s.taps, c.sr, c.window_ms, c.smooth_ms);
    for (std::size_t channel = 0; channel < 3; ++channel) {
      std::vector<double> summed(5000);
      for (const auto& tap : s.taps) {
        for (std::size_t i = 0; i < summed.size(); ++i) summed[i] += tap.audio.row(channel)[i];
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
  }
  for (const double ms : {1e-9, 1e300}) {  // windows of no sample and of more than there are
    const auto result = shared_single_band_model(s.mix.view(), s.taps, 44100, ms, ms);
    for (const double gain : result.gain.flat()) ASSERT_NEAR(gain, 25.01, 24.9900001);
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

TEST(SharedGain, SaysWhatIsWrongAndStopsWhenAsked) {
  const std::string kEmpty = "single-band model needs channels, samples and taps";
  const std::string kTap = "single-band taps must match the finite full mix";
  const std::string kMix = "non-finite single-band mix";
  const std::pair<std::string, std::function<void(Song&)>> kCases[] = {
      {kEmpty, [](Song& s) { s.taps.clear(); }},
      {kEmpty, [](Song& s) { s = song(2, 0, 2); }},
      {kEmpty, [](Song& s) { s = song(0, 100, 2); }},
      {kMix, [](Song& s) { s.mix.row(1)[99] = kNan; }},
      {kMix, [](Song& s) { s.mix.row(0)[0] = s.taps[0].audio.row(0)[0] = -kInfinity; }},
      {kTap, [](Song& s) { s.taps[1].audio = AudioArray::zeros(2, 101); }},
      {kTap, [](Song& s) { s.taps[1].audio = AudioArray::zeros(1, 100); }},
      {kTap, [](Song& s) { s.taps[1].audio.row(1)[50] = kNan; }},
      {"non-finite single-band model", make_model_overflow}};
  for (const auto& [message, spoil] : kCases) {
    Song s = song(2, 100, 2);
    spoil(s);
    const auto attempt = [&] { shared_single_band_model(s.mix.view(), s.taps, 1000); };
    EXPECT_EQ(message == kEmpty || message == kTap
                  ? testing::failure_of<ValueError>(attempt)
                  : testing::failure_of<FloatingPointError>(attempt),
              message);
  }
  const std::atomic<bool> stop = true;
  const Song s = song(1, 100, 1);
  EXPECT_THROW(shared_single_band_model(s.mix.view(), s.taps, 1000, 30.0, 120.0, StopToken(stop)),
               Cancelled);
}

}  // namespace
}  // namespace verdel::internal
