#include "chain/passages.hpp"

#include <gtest/gtest.h>

#include <cmath>

#include "chain/tap_promise.hpp"
#include "support/noise.hpp"
#include "support/precision.hpp"

namespace verdel::internal {
namespace {

constexpr int kRate = 2000;
constexpr std::size_t kFrames = 90 * kRate;

StemMap noisy_taps() {
  StemMap taps;
  for (unsigned t = 0; t < 3; ++t)
    taps.push_back({"", testing::rounded(testing::noise_array(2, kFrames, t).view())});
  return taps;
}

ChainFir filter(std::size_t length, std::size_t centre) {
  std::vector<double> response(length), silence(length);
  for (std::size_t i = 0; i < length; ++i) response[i] = i % 7 == 0 ? 0.1 : -0.01;
  return {2, length, centre, {response, silence, silence, response}};
}

// One tap late, one in a room of the longest kind, all behind a master's filter: where passages are
// judged they sound as the song does.
TEST(Passages, SoundAsTheWholeSongWhereTheyAreJudged) {
  const StemMap taps = noisy_taps();
  HeardTaps heard(taps);
  heard.paths[1].lag = 313;
  heard.paths[2].own = filter(1.2 * kRate, 0.005 * kRate);
  const ChainFir master = filter(0.19 * kRate, 0.09 * kRate);
  AudioArray song = AudioArray::zeros(2, kFrames);
  const ChainJob shape{.mix = song.view(), .sr = kRate};
  Heard part = Heard::uninitialised(2, kFrames);
  for (std::size_t tap = 0; tap < taps.size(); ++tap) {
    heard.hear(tap, &master, shape, part);
    for (std::size_t i = 0; i < song.size(); ++i) {
      song.data()[i] += static_cast<double>(part.data()[i]);
    }
  }
  const Passages passages({.mix = song.view(), .sr = kRate}, heard);
  ASSERT_LT(passages.job().mix.columns(), kFrames);
  Heard all = passages.room(), room = passages.room();
  passages.hear_all(&master, all, room);
  std::size_t judged = 0;
  double farthest = 0.0;
  for (const SampleSpan& span : passages.judged()) {
    judged += span.length();
    for (std::size_t i = span.first; i < span.stop; ++i) {
      const auto sample = static_cast<double>(all.row(1)[i]);
      farthest = std::max(farthest, std::abs(sample - passages.job().mix.row(1)[i]));
    }
  }
  EXPECT_GE(judged, 60U * kRate);
  EXPECT_LT(farthest, 1e-4);
  passages.silence_rest(all);
  EXPECT_EQ(all.row(0)[passages.judged()[1].first - 1], 0.0F);
  EXPECT_NE(all.row(0)[passages.judged()[1].first], 0.0F);
}

// What is left is an echo of one tap, four half frames late, and as much noise: 3 dB of it are an
// effect's, less what the first frames of a run and chance take, and none an equaliser's.
TEST(Passages, PromiseWhatAnEffectWouldTakeOff) {
  const StemMap taps = noisy_taps();
  const HeardTaps heard(taps);
  constexpr std::size_t kDelay = 4 * 256;  // frames of 512 samples, half overlapping
  AudioArray mix = testing::noise_array(2, kFrames, 9);
  for (std::size_t c = 0; c < 2; ++c) {
    for (std::size_t i = kDelay; i < kFrames; ++i) {
      mix.row(c)[i] += static_cast<double>(taps[1].audio.row(c)[i - kDelay]);
    }
  }
  const ChainJob song{.mix = mix.view(), .sr = kRate};
  const Passages passages(song, heard);
  const GainCurve unity(passages.job().mix, kFittingGain, passages.job());
  Heard rest = passages.room();
  for (std::size_t c = 0; c < 2; ++c) {
    std::ranges::transform(passages.job().mix.row(c), rest.row(c).begin(),
                           [](double sample) { return static_cast<float>(sample); });
  }
  passages.silence_rest(rest);
  const std::size_t chosen[] = {2, 1};
  const auto promises = glance_at_taps(passages, chosen, unity, rest.view());
  EXPECT_NEAR(promises[0].effect, 0.0, 0.1);
  EXPECT_NEAR(promises[1].equaliser, 0.0, 0.1);
  EXPECT_NEAR(promises[1].effect, 2.6, 0.25);
}

}  // namespace
}  // namespace verdel::internal
