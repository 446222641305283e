#include "chain/gains.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "chain/chain_gain.hpp"
#include "signal/stem_sums.hpp"
#include "support/noise.hpp"
#include "support/precision.hpp"

namespace verdel::internal {
namespace {

constexpr int kRate = 8000;
constexpr std::size_t kFrames = 12 * kRate, kTaps = 4;

struct Case {
  std::size_t channels;
  double left_hz, right_hz;  ///< how often the gain of a channel swings in a second, 0: not at all
  bool lows_only;            ///< the gain is for what is below some 400 Hz
  std::size_t not_through;   ///< the tap that does not go through it
  bool fine, bands, apart;   ///< what has to be found
};

constexpr Case kCases[] = {
    {2, 0.0, 0.0, false, 9, false, false, false},  // nothing to find
    {2, 11.0, 11.0, false, 9, true, false, false},  {1, 11.0, 0.0, false, 9, true, false, false},
    {2, 11.0, 7.0, false, 9, true, false, true},    {2, 11.0, 0.0, false, 9, true, false, true},
    {2, 3.0, 3.0, true, 9, false, true, false},     {2, 3.0, 4.7, true, 9, false, true, true},
    {2, 11.0, 11.0, false, 3, false, false, false},  // voted down, in time
    {2, 3.0, 3.0, true, 0, false, false, false},     // and in bands
};

double gain_at(const Case& c, std::size_t channel, std::size_t frame) {
  const double turns = (channel == 0 ? c.left_hz : c.right_hz) * static_cast<double>(frame) / kRate;
  return 1.0 + 0.4 * std::sin(2.0 * std::numbers::pi * turns);
}

StemMap made_taps(std::size_t channels) {
  StemMap taps;
  for (unsigned t = 0; t < kTaps; ++t) {
    AudioArray tap = testing::noise_array(channels, kFrames, t);
    for (std::size_t i = 0; i < tap.size(); ++i) {
      const double fall = static_cast<double>((i % kFrames + 900 * t) % (2100 + 700 * t)) / 900.0;
      tap.flat()[i] *= 0.1 * std::exp(-fall) + 0.01;
    }
    taps.push_back({"", testing::rounded(tap.view())});
  }
  return taps;
}

AudioArray mixed(const Case& c, const StemMap& taps) {
  AudioArray mix = AudioArray::zeros(c.channels, kFrames);
  for (std::size_t t = 0; t < kTaps; ++t) {
    for (std::size_t channel = 0; channel < c.channels; ++channel) {
      double low = 0.0;
      for (std::size_t i = 0; i < kFrames; ++i) {
        const auto sample = static_cast<double>(taps[t].audio.row(channel)[i]);
        low += 0.3 * (sample - low);
        const double turned = c.lows_only ? low : sample;
        const double gain = t == c.not_through ? 1.0 : gain_at(c, channel, i);
        mix.row(channel)[i] += sample + (gain - 1.0) * turned;
      }
    }
  }
  return mix;
}

TEST(Gains, FindWhatIsThereAndNothingElse) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.left_hz);
    StemMap taps = made_taps(c.channels), again = made_taps(c.channels);
    const AudioArray mix = mixed(c, taps);
    ThreadPool pool(3, "gains");
    const GainsFinding found = find_gains({.mix = mix.view(), .sr = kRate, .pool = &pool}, taps);
    const ChainJob alone{.mix = mix.view(), .sr = kRate};
    find_gains(alone, again);
    EXPECT_THAT(again[1].audio.flat(), ::testing::ElementsAreArray(taps[1].audio.flat()));
    const AudioArray heard = sum_of(taps, c.channels, kFrames);
    // The figure is of what was handed out; where nothing is left it is that of single precision.
    EXPECT_NEAR(std::max(left_under_engine_gain(heard.view(), alone), -140.0),
                std::max(found.left_after, -140.0), 0.01);
    EXPECT_EQ(!found.used.empty(), c.fine || c.bands);
    if (found.used.empty()) continue;
    EXPECT_EQ(found.used[0].in_bands, c.bands);
    EXPECT_EQ(found.used[0].channels_apart(), c.apart);
    if (c.apart && found.used.size() == 1) {  // nothing is left for the engine to do
      const AudioArray rest = difference_from(mix.view(), sum_of(taps, c.channels, kFrames));
      const double left = energy_db(energy_of(rest.view()) / energy_of(mix.view()));
      EXPECT_NEAR(left, found.left_after, 0.5);
    }
    EXPECT_LT(found.left_after, c.bands ? -24.0 : c.apart ? -45.0 : -32.0);
  }
}

}  // namespace
}  // namespace verdel::internal
