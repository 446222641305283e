#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <numeric>

#include "alignment/lag_search.hpp"
#include "alignment/tap_alignment.hpp"
#include "support/errors.hpp"
#include "support/machines.hpp"
#include "support/noise.hpp"
#include "support/precision.hpp"

namespace verdel::internal {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::FieldsAre;
using testing::noise_array;
using Samples = std::span<double>;

constexpr int kRate = 4000;
constexpr std::size_t kSection = 30000;  // 7.5 s, a quarter of a case's 30 s

void scale(Samples signal, double gain) {
  for (double& sample : signal) sample *= gain;
}
void turn(Samples signal) {
  std::rotate(signal.begin(), signal.begin() + 50, signal.end());
}
AudioArray moved(const AudioArray& audio, std::ptrdiff_t lag) {
  return testing::widened(align_tap(testing::rounded(audio.view()).view(), lag).view());
}

// A source and its copy `lag` samples later, changed afterwards: 39 and 41 dB are on both sides of
// what counts as sound in a section, whose votes must be more than half.
TEST(FindLag, IsThatOfTheCopyOrNone) {
  const auto plain = [](Samples, Samples) {};
  const struct {
    const char* name;
    std::ptrdiff_t lag, expected;
    std::function<void(Samples late, Samples source)> change;
    std::size_t length = 4 * kSection;
    double third_section = 1.5;  // the loudest, so that the search of the whole looks there
  } kCases[] = {{"late, inverted", 100, 100, [](auto late, auto) { scale(late, -1.0); }},
                {"two samples", -2, 0, plain},
                {"three", -3, -3, plain},
                {"the whole range", 800, 800, plain},
                {"beyond the range", 801, 0, plain},
                {"two sections", 100, 100, plain, 40000},
                {"one sample less", 100, 0, plain, 39999},
                {"below hearing", 100, 0, [](auto, auto source) { scale(source, 1e-9); }},
                {"sounds in one", 100, 0, plain, 4 * kSection, 154.0},
                {"sounds in all", 100, 100, plain, 4 * kSection, 59.0},
                {"three agree", 100, 100, [](auto late, auto) { turn(late.first(kSection)); }},
                {"two agree", 100, 0,
                 [](auto late, auto) { turn(late.first(kSection)), turn(late.last(kSection)); }},
                {"one NaN", 100, 0, [](auto, auto source) { source[5] = std::nan(""); }},
                {"all infinite", 100, 0, [](auto late, auto) { scale(late, HUGE_VAL); }}};
  for (const auto& c : kCases) {
    AudioArray source = noise_array(1, c.length, 1);
    if (c.length == 4 * kSection) {
      scale(source.flat().subspan(2 * kSection, kSection), c.third_section);
    }
    AudioArray late = moved(source, c.lag);
    c.change(late.flat(), source.flat());
    EXPECT_EQ(find_lag(late.flat(), source.flat(), kRate), c.expected) << c.name;
  }
}

// By definition, without transforms. The highest correlation of unrelated noise stands anywhere, at
// a level that any slip would change.
TEST(FindLagWindow, EqualsThePlainSums) {
  using Case = std::tuple<int, std::size_t, double, std::ptrdiff_t>;
  for (const auto& [sr, length, max_ms, range] :
       {Case{1000, 1024, 200.0, 200}, Case{5000, 16001, 600.1, 3000}, Case{1000, 1999, 1e9, 1998},
        Case{1000, 1023, 200.0, 0}, Case{1000, 5000, -3.0, 0}, Case{1000, 5000, std::nan(""), 0}}) {
    const auto a = testing::noise(length, 1), b = testing::noise(length, 101);
    std::ptrdiff_t best = 0;
    double highest = -1.0, at_zero = 0.0;
    for (std::ptrdiff_t lag = -range; lag <= range; ++lag) {
      const auto shift = static_cast<std::size_t>(std::abs(lag));
      double sum = 0.0;
      for (std::size_t i = 0; i + shift < length; ++i) {
        sum += lag < 0 ? a[i] * b[i + shift] : a[i + shift] * b[i];
      }
      if (lag == 0) at_zero = std::abs(sum);
      if (std::abs(sum) > highest) best = lag;
      highest = std::max(highest, std::abs(sum));
    }
    EXPECT_EQ(_find_lag_window(a, b, sr, max_ms), highest > at_zero * 1.02 ? best : 0);
  }
  // A lag must beat lag 0 by 2 percent.
  std::vector<double> a(2000), b(2000);
  b[1000] = a[1000] = 1.0;
  for (const double second : {1.019, 1.021}) {
    a[950] = second;
    EXPECT_EQ(_find_lag_window(a, b, 1000), second > 1.02 ? -50 : 0);
  }
}

TEST(AlignTap, DelaysByTheLagAndLosesWhatPassesAnEnd) {
  auto audio = StemArray::zeros(2, 3);
  std::iota(audio.data(), audio.data() + 6, 1.0F);
  const std::pair<std::ptrdiff_t, std::vector<float>> kCases[] = {
      {0, {1, 2, 3, 4, 5, 6}},
      {1, {0, 1, 2, 0, 4, 5}},
      {-2, {3, 0, 0, 6, 0, 0}},
      {3, std::vector<float>(6)},
      {std::numeric_limits<std::ptrdiff_t>::min(), std::vector<float>(6)}};
  for (const auto& [lag, samples] : kCases) {
    EXPECT_THAT(align_tap(audio.view(), lag).flat(), ElementsAreArray(samples)) << lag;
  }
}

// Whole numbers, whose sums are exact, and silent ends, so that moves lose nothing.
AudioArray whole_noise(unsigned seed) {
  auto audio = noise_array(2, 40000, seed);
  for (double& sample : audio.flat()) sample = std::round(100.0 * sample);
  for (const std::size_t end : {0U, 39500U, 40000U, 79500U}) {
    scale(audio.flat().subspan(end, 500), 0.0);
  }
  return audio;
}

// A late and an early tap, a tap that would fit inverted, and a second tap of a source that the
// first one took: where it then stands is all the same.
TEST(AlignTapsToMix, MovesOnlyWhatLowersTheEnergyOnAnyMachine) {
  const AudioArray a = whole_noise(1), b = whole_noise(2);
  const auto mix_of = [&](std::ptrdiff_t lag_a, double gain_a, double gain_b) {
    AudioArray mix = moved(a, lag_a);
    const AudioArray other = moved(b, 121);
    for (std::size_t i = 0; i < mix.size(); ++i) {
      mix.flat()[i] = gain_a * mix.flat()[i] + gain_b * other.flat()[i];
    }
    return mix;
  };
  for (const std::size_t processors : {0u, 1u, 4u}) {
    StemMap taps;
    const auto align = [&](const AudioArray& mix, const AudioArray& second,
                           const StopToken& stop = {}) {
      taps.clear();
      taps.push_back({"a", testing::rounded(a.view())});
      taps.push_back({"b", testing::rounded(second.view())});
      return align_taps_to_mix(mix.view(), taps, 2000, testing::machine_with(processors), stop);
    };
    EXPECT_THAT(align(mix_of(-37, 1, 1), b), ElementsAre(FieldsAre("a", -37), FieldsAre("b", 121)));
    EXPECT_TRUE(std::ranges::equal(taps[1].audio.flat(), moved(b, 121).flat()));
    EXPECT_THAT(align(mix_of(-60, 1, 0), a), ElementsAre(FieldsAre("a", -60)));
    EXPECT_THAT(align(mix_of(-60, -1, 0), b), ElementsAre());
    EXPECT_THROW(align(noise_array(1, 40000, 1), b), ValueError);
    EXPECT_THROW(align(noise_array(2, 39999, 1), b), ValueError);
    const std::atomic<bool> stop{true};
    EXPECT_THROW(align(mix_of(60, 1, 1), b, StopToken(stop)), Cancelled);
  }
}

}  // namespace
}  // namespace verdel::internal
