#include "alignment/tap_alignment.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <random>

#include "support/errors.hpp"

namespace verdel::internal {
namespace {

using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;

constexpr int kRate = 2000;
constexpr std::size_t kFrames = 20 * kRate;
constexpr std::size_t kMargin = 500;  // silent at both ends, so that moves lose nothing

// Whole numbers: every sum of their products is exact.
AudioArray source(unsigned seed, std::size_t channels = 2) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> value(-100, 100);
  auto audio = AudioArray::zeros(channels, kFrames);
  for (std::size_t c = 0; c < channels; ++c) {
    for (std::size_t i = kMargin; i < kFrames - kMargin; ++i) audio.row(c)[i] = value(random);
  }
  return audio;
}

AudioArray copy(const AudioArray& audio) {
  return AudioArray::copy_of(audio.view());
}

void add(AudioArray& mix, const AudioArray& audio, double gain = 1.0) {
  for (std::size_t i = 0; i < mix.size(); ++i) mix.flat()[i] += gain * audio.flat()[i];
}

StemMap stem_map(std::initializer_list<const AudioArray*> sources) {
  StemMap taps;
  for (const AudioArray* tap : sources) {
    taps.push_back({std::string("tap ") + std::to_string(taps.size()), copy(*tap)});
  }
  return taps;
}

bool same(const AudioArray& a, const AudioArray& b) {
  return std::ranges::equal(a.flat(), b.flat());
}

auto align(const AudioArray& mix, StemMap& taps, std::size_t processors = 1,
           const StopToken& stop = {}) {
  Machine machine = system_machine();
  machine.processors = [processors] { return processors; };
  return align_taps_to_mix(mix.view(), taps, kRate, machine, stop);
}

TEST(AlignTap, DelaysByTheLagAndLosesWhatPassesAnEnd) {
  auto audio = AudioArray::zeros(2, 5);
  for (std::size_t i = 0; i < audio.size(); ++i) audio.flat()[i] = static_cast<double>(i + 1);
  using Limits = std::numeric_limits<std::ptrdiff_t>;
  for (const auto lag :
       std::vector<std::ptrdiff_t>{0, 1, -1, 4, -4, 5, -5, Limits::max(), Limits::min()}) {
    const AudioArray aligned = align_tap(audio.view(), lag);
    ASSERT_TRUE(aligned.view().same_shape(audio.view()));
    for (std::ptrdiff_t i = 0; i < 10; ++i) {
      const bool inside = lag > -5 && lag < 5 && i % 5 - lag >= 0 && i % 5 - lag < 5;
      EXPECT_EQ(aligned.flat()[static_cast<std::size_t>(i)],
                inside ? static_cast<double>(i - lag + 1) : 0.0)
          << "lag " << lag << " sample " << i;
    }
  }
}

TEST(AlignTapsToMix, MovesLateAndEarlyTapsAndNoOtherOnAnyMachine) {
  for (const std::size_t channels : {1u, 2u}) {
    for (const std::size_t processors : {0u, 1u, 4u}) {
      const AudioArray early = source(1, channels), late = source(3, channels);
      AudioArray mix = source(2, channels);
      StemMap taps = stem_map({&late, &mix, &early});
      const double* untouched = taps[1].audio.data();
      add(mix, align_tap(early.view(), 121));
      add(mix, align_tap(late.view(), -37));
      EXPECT_THAT(align(mix, taps, processors),
                  ElementsAre(FieldsAre("tap 0", -37), FieldsAre("tap 2", 121)));
      EXPECT_EQ(taps[1].audio.data(), untouched);
      // Aligned, the taps make up the mix to the last bit.
      for (const auto& tap : taps) add(mix, tap.audio, -1.0);
      EXPECT_TRUE(same(mix, AudioArray::zeros(channels, kFrames)));
    }
  }
}

TEST(AlignTapsToMix, MovesOnlyWhatLowersTheEnergy) {
  const AudioArray tap = source(1), moved = align_tap(tap.view(), -60);
  auto inverted = AudioArray::zeros(2, kFrames);
  add(inverted, moved, -1.0);
  StemMap taps = stem_map({&tap, &tap});
  EXPECT_THAT(align(inverted, taps), IsEmpty());

  // The first tap takes the mix's only source; where the second then stands is all the same.
  EXPECT_THAT(align(moved, taps), ElementsAre(FieldsAre("tap 0", -60)));
  EXPECT_TRUE(same(taps[0].audio, moved));
  EXPECT_TRUE(same(taps[1].audio, tap));
}

TEST(AlignTapsToMix, RefusesOtherShapesAndStopsWhenAsked) {
  const AudioArray tap = source(1), mix = align_tap(tap.view(), 60);
  const AudioArray mono = source(1, 1), cut = AudioArray::zeros(2, kFrames - 1);
  StemMap taps;
  EXPECT_THAT(align(mix, taps), IsEmpty());
  for (const AudioArray* other : {&mono, &cut}) {
    taps = stem_map({other});
    EXPECT_THROW(align(mix, taps), ValueError);
  }
  taps = stem_map({&tap});
  const std::atomic<bool> flag{true};
  EXPECT_THROW(align(mix, taps, 4, StopToken(flag)), Cancelled);
  EXPECT_TRUE(same(taps[0].audio, tap));
}

}  // namespace
}  // namespace verdel::internal
