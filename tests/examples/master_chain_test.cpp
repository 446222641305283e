#include "master_chain.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "chain_songs.hpp"

// The true stems are what renders are judged by, so they must be true.
namespace demo {
namespace {

constexpr double kRate = 44100.0;

std::vector<Stem> noisy_stems(std::size_t frames) {
  std::vector<Stem> stems;
  for (const char* name : {"Kick", "Snare", "Bass", "Pads"}) {
    Random random(stems.size() + 1);
    stems.push_back({name, Stereo(frames)});
    for (std::size_t i = 0; i < frames; ++i) {
      const double swell = 0.3 * std::sin(3e-4 * static_cast<double>(i * (stems.size() + 1)));
      stems.back().sound.left[i] = swell * random.noise();
      stems.back().sound.right[i] = swell * random.noise();
    }
  }
  return stems;
}

double largest_difference(const Stereo& one, const Stereo& other) {
  double largest = 0.0;
  for (std::size_t i = 0; i < one.frames(); ++i) {
    largest = std::max(
        {largest, std::abs(one.left[i] - other.left[i]), std::abs(one.right[i] - other.right[i])});
  }
  return largest;
}

TEST(MasterChain, StemsAddUpToWhatBecomesOfTheirSum) {
  for (const ChainSong& song : chain_songs()) {
    SCOPED_TRACE(song.name);
    Chain chain = song.chain;
    // What stands behind one tap alone does not see the sum.
    std::erase_if(chain, [](const Device& device) { return !device.only.empty(); });
    std::vector<Stem> stems = noisy_stems(30000);
    std::vector<Stem> bus{{"Mix", sum_of(stems)}};
    play_through(chain, bus, kRate);
    const Stereo before = sum_of(stems);
    play_through(chain, stems, kRate);
    EXPECT_LT(largest_difference(sum_of(stems), bus.front().sound), 1e-12);
    EXPECT_EQ(chain.empty(), largest_difference(sum_of(stems), before) == 0.0);
  }
}

TEST(MasterChain, DevicesBehindOneTapLeaveTheOthersAlone) {
  std::vector<Stem> stems = noisy_stems(5000);
  const std::vector<Stem> before = stems;
  play_through({{Reverb{}, {"Snare"}}, {Compressor{}, {"Bass"}}}, stems, kRate);
  for (std::size_t i = 0; i < stems.size(); ++i) {
    const bool changed = largest_difference(stems[i].sound, before[i].sound) > 0.0;
    EXPECT_EQ(changed, stems[i].name == "Snare" || stems[i].name == "Bass") << stems[i].name;
  }
}

/// dB by which a sinusoid of `hz` comes out of the chain louder than it goes in, in the middle of a
/// second.
double gain_at(const Chain& chain, double hz) {
  std::vector<Stem> stems{{"Sine", Stereo(44100)}};
  Stereo& sound = stems.front().sound;
  for (std::size_t i = 0; i < sound.frames(); ++i) {
    const double turns = static_cast<double>(i) * hz / kRate;
    sound.left[i] = sound.right[i] = 0.01 * std::sin(2.0 * std::numbers::pi * turns);
  }
  play_through(chain, stems, kRate);
  double power = 0.0;
  for (std::size_t i = 11025; i < 33075; ++i) power += sound.right[i] * sound.right[i];
  return 10.0 * std::log10(power / (22050.0 * 0.5 * 1e-4));
}

TEST(MasterChain, EqualisersAndCrossoversDoWhatTheySay) {
  const Equaliser eq = demo_equaliser();
  Equaliser linear = eq;
  std::erase_if(linear.bands, [](const EqBand& band) {
    return band.kind == EqBand::Kind::kHighPass;  // it has no decibels to be halved
  });
  linear.linear_phase = true;
  const Compressor idle{.threshold_db = 0.0, .makeup_db = 0.0};
  const Chain bands{{MultibandCompressor{{150.0, 1000.0, 6000.0}, {idle, idle, idle, idle}}}};
  for (const double hz : {60.0, 150.0, 380.0, 1000.0, 2950.0, 9000.0}) {
    SCOPED_TRACE(hz);
    EXPECT_NEAR(gain_at({{eq}}, hz), eq.response_db(hz, kRate), 0.02);
    EXPECT_NEAR(gain_at({{linear}}, hz), linear.response_db(hz, kRate), 0.02);
    EXPECT_NEAR(gain_at(bands, hz), 0.0, 0.02);
  }
  // The cookbook's peak has its decibels at its frequency, its shelf far above.
  const Equaliser peak{{{.hz = 380.0, .db = -3.5, .q = 0.9}}};
  EXPECT_NEAR(gain_at({{peak}}, 380.0), -3.5, 0.02);
  const Equaliser shelf{{{.kind = EqBand::Kind::kHighShelf, .hz = 2000.0, .db = 4.0}}};
  EXPECT_NEAR(gain_at({{shelf}}, 18000.0), 4.0, 0.05);
}

}  // namespace
}  // namespace demo
