#include "chain/hear_chain.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

#include "alignment/tap_alignment.hpp"
#include "chain/chain_gain.hpp"
#include "signal/stem_sums.hpp"
#include "support/noise.hpp"
#include "support/precision.hpp"

namespace verdel::internal {
namespace {

constexpr int kRate = 8000;
constexpr std::size_t kFrames = 12 * kRate;

// A one-pole shelf at some 400 Hz, on both channels or on the sides alone.
void equalise(AudioArray& audio, bool sides = false) {
  double slow[2] = {};
  for (std::size_t i = 0; i < kFrames; ++i) {
    double &left = audio.row(0)[i], &right = audio.row(1)[i];
    for (double& state : slow) state += 0.3 * ((&state == slow ? left : right) - state);
    const double mid = sides ? 0.5 * (slow[0] + slow[1]) : 0.0;
    left += 0.8 * (slow[0] - mid);
    right += 0.8 * (slow[1] - mid);
  }
}

// The response of equalise() at `hz`, in dB.
double equaliser_db(double hz) {
  const auto turn = std::polar(1.0, -2.0 * std::numbers::pi * hz / kRate);
  return 20.0 * std::log10(std::abs(1.0 + 0.8 * 0.3 / (1.0 - 0.7 * turn)));
}

// How far a found curve is from the master's, but for its level, which is the gain's affair.
double curve_error_db(const CurveFinding& found) {
  double least = 1e9, most = -1e9;
  for (std::size_t k = 0; k < found.hz.size(); ++k) {
    if (found.hz[k] < 40.0 || found.hz[k] > 3500.0) continue;
    const double level = 20.0 * std::log10(std::abs(found.curves[0].response[k]));
    least = std::min(least, level - equaliser_db(found.hz[k]));
    most = std::max(most, level - equaliser_db(found.hz[k]));
  }
  return 0.5 * (most - least);
}

// What one tap goes through: the first difference on top, and forty echoes in
// 0.4 s.
void brighten(AudioArray& audio) {
  for (std::size_t i = 2 * kFrames; i-- > 1;)
    audio.flat()[i] += 0.7 * (audio.flat()[i] - audio.flat()[i - 1]);
}
void reverberate(AudioArray& audio) {
  const AudioArray dry = AudioArray::copy_of(audio.view());
  for (std::size_t echo = 1; echo <= 40; ++echo) {
    const std::size_t delay = 67 * echo + echo * echo % 61;
    const double level = (echo % 3 == 0 ? -0.3 : 0.3) * std::exp(-0.08 * static_cast<double>(echo));
    for (std::size_t c = 0; c < 2; ++c) {
      for (std::size_t i = delay; i < kFrames; ++i)
        audio.row(c)[i] += level * dry.row(c)[i - delay];
    }
  }
}

// What tap 1 is that the others are not.
enum class Odd { kNone, kBouncedWithTheMaster, kOwnEqualiser, kRoom };

struct Case {
  bool equalised, sides;
  std::ptrdiff_t late;
  Odd odd;
  const char* curve;
};

StemMap make_taps() {
  StemMap taps;
  for (std::size_t t = 0; t < 4; ++t) {
    AudioArray tap = testing::noise_array(2, kFrames, static_cast<unsigned>(t));
    if (t % 2 == 0) equalise(tap);
    for (std::size_t i = 0; i < 2 * kFrames; ++i) {
      const double fall = static_cast<double>((i % kFrames + 900 * t) % (2100 + 700 * t)) / 900.0;
      tap.flat()[i] *= i % kFrames < kFrames - kRate / 2 ? 0.2 * std::exp(-fall) : 0.0;
    }
    taps.push_back({"", testing::rounded(tap.view())});
  }
  return taps;
}

TEST(HearChain, FindsWhatTapsWentThroughAndKeepsItsHandsOffElsewhere) {
  for (const auto& [equalised, sides, late, odd, curve] :
       {Case{false, false, 0, Odd::kNone, "no EQ found"},
        Case{true, false, 0, Odd::kNone, "one curve"},
        Case{true, false, 300, Odd::kNone, "one curve"},
        Case{true, true, 0, Odd::kNone, "mid/side"},
        Case{true, false, 0, Odd::kBouncedWithTheMaster, "one curve"},
        Case{false, false, 0, Odd::kOwnEqualiser, "no EQ found"},
        Case{false, false, 0, Odd::kRoom, "no EQ found"},
        Case{true, false, 0, Odd::kOwnEqualiser, "one curve"},
        Case{true, false, 300, Odd::kRoom, "one curve"}}) {
    StemMap taps = make_taps(), again;
    const AudioArray bounced = testing::widened(taps[1].audio.view());
    AudioArray played = AudioArray::copy_of(bounced.view());
    if (odd == Odd::kOwnEqualiser) brighten(played);
    if (odd == Odd::kRoom) reverberate(played);
    taps[1].audio = testing::rounded(played.view());
    AudioArray mix = sum_of(taps, 2, kFrames);
    if (equalised) equalise(mix, sides);
    played = AudioArray::copy_of(bounced.view());
    if (odd == Odd::kBouncedWithTheMaster) equalise(played);
    taps[1].audio = testing::rounded(played.view());
    for (auto& tap : taps) {
      tap.audio = align_tap(tap.audio.view(), late);
      again.push_back({"", StemArray::copy_of(tap.audio.view())});
    }
    SCOPED_TRACE(curve + std::to_string(static_cast<int>(odd)));
    ThreadPool pool(3, "chain");
    const auto found = hear_chain({.mix = mix.view(), .sr = kRate, .pool = &pool}, taps);
    const std::string model(name_of(found.curve.model));
    EXPECT_THAT(found.curve.used ? model : found.curve.why_not, ::testing::StartsWith(curve));
    const auto& filters = found.tap_filters.filters;
    ASSERT_EQ(filters.size(), odd == Odd::kNone ? 0U : 1U);
    if (odd != Odd::kNone) {
      EXPECT_EQ(filters[0].tap, 1U);
      EXPECT_EQ(filters[0].is_effect, odd == Odd::kRoom);
      // The taps as heard are the mix, but for where the room is longer than
      // the search.
      const AudioArray heard = sum_of(taps, 2, kFrames);
      EXPECT_LT(left_under_engine_gain(heard.view(), {.mix = mix.view(), .sr = kRate}), -25.0);
    }
    if (equalised && !sides) {
      EXPECT_LT(curve_error_db(found.curve), 0.2);
    }
    EXPECT_EQ(found.curve.lags[2], -late);
    if (!equalised || late == 0) continue;
    hear_chain({.mix = mix.view(), .sr = kRate}, again);  // on this thread alone: the same bits
    EXPECT_THAT(again[1].audio.flat(), ::testing::ElementsAreArray(taps[1].audio.flat()));
  }
}

}  // namespace
}  // namespace verdel::internal
