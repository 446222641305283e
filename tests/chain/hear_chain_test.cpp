#include "chain/hear_chain.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "alignment/tap_alignment.hpp"
#include "signal/stem_sums.hpp"
#include "support/noise.hpp"

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

TEST(HearChain, FindsWhatAllTapsWentThroughAndKeepsItsHandsOffElsewhere) {
  // What the mix goes through, by how much taps are late, the tap that is bounced with the EQ.
  struct Case {
    bool equalised, sides;
    std::ptrdiff_t late;
    std::size_t bounced_with;
    const char* found;
  };
  for (const auto& [equalised, sides, late, bounced_with, words] :
       {Case{false, false, 0, 9, "no EQ found"}, Case{true, false, 0, 9, "one curve"},
        Case{true, false, 300, 9, "one curve"}, Case{true, true, 0, 9, "mid/side"},
        Case{true, false, 0, 1, "an EQ fits, but not all taps"}}) {
    StemMap taps, again;
    for (std::size_t t = 0; t < 4; ++t) {
      AudioArray tap = testing::noise_array(2, kFrames, static_cast<unsigned>(t));
      if (t % 2 == 0) equalise(tap);
      for (std::size_t i = 0; i < 2 * kFrames; ++i) {
        const double fall = static_cast<double>((i % kFrames + 900 * t) % (2100 + 700 * t)) / 900.0;
        tap.flat()[i] *= i % kFrames < kFrames - kRate / 2 ? 0.2 * std::exp(-fall) : 0.0;
      }
      taps.push_back({"", std::move(tap)});
    }
    AudioArray mix = sum_of(taps, 2, kFrames);
    if (equalised) equalise(mix, sides);
    if (bounced_with < taps.size()) equalise(taps[bounced_with].audio);
    for (auto& tap : taps) {
      tap.audio = align_tap(tap.audio.view(), late);
      again.push_back({"", AudioArray::copy_of(tap.audio.view())});
    }
    ThreadPool pool(3, "chain");
    const auto found = hear_chain({.mix = mix.view(), .sr = kRate, .pool = &pool}, taps, true);
    const std::string model(name_of(found.curve.model));
    EXPECT_THAT(found.curve.used ? model : found.curve.why_not, ::testing::StartsWith(words));
    EXPECT_EQ(found.changes_taps(), found.curve.used);
    EXPECT_EQ(found.curve.lags[2], -late);
    hear_chain({.mix = mix.view(), .sr = kRate}, again, true);
    EXPECT_THAT(again[1].audio.flat(), ::testing::ElementsAreArray(taps[1].audio.flat()));
  }
}

}  // namespace
}  // namespace verdel::internal
