#include "contamination/report.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <limits>
#include <numbers>
#include <random>
#include <string>

#include "reference_contamination.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

constexpr double kNoNumber = std::numeric_limits<double>::quiet_NaN();

// A song whose sounds are known by name.
struct Song {
  StemMap est, taps;
  int sr = 0;

  ReportJob job(std::size_t n_bands, std::size_t workers = 1) const {
    return {.est = views_of(est),
            .taps = views_of(taps),
            .sr = sr,
            .n_bands = n_bands,
            .nfft = std::bit_ceil(est.front().audio.columns() + 1),
            .workers = workers};
  }
};

// Noise and tones, silent at first where they are struck every beat and die away.
struct Sound {
  double noise, beat, decay;
  std::vector<double> tones;
};
const Sound kDrum{0.2, 0.31, 14, {70, 150}};
const Sound kBass{0.0, 0.43, 3, {41.2, 82.4, 123.6}};
const Sound kChord{0.0, 1e9, 0, {220, 277.2, 329.6, 440, 2093}};
const Sound kNoise{0.1, 1e9, 0, {}};

void play(const Sound& sound, std::span<double> out, double sr, std::mt19937& random) {
  std::normal_distribution<double> sample(0.0, 1.0);
  const auto first = static_cast<std::size_t>(sound.decay > 0.0 ? 0.1 * sr : 0.0);
  for (std::size_t i = first; i < out.size(); ++i) {
    const double t = static_cast<double>(i) / sr;
    double value = sound.noise > 0.0 ? sound.noise * sample(random) : 0.0;
    for (const double hz : sound.tones) value += 0.1 * std::sin(2 * std::numbers::pi * hz * t + hz);
    out[i] = value * (1 + 0.5 * std::sin(4 * t)) *
             std::exp(-sound.decay * std::fmod(t + 0.2, sound.beat));
  }
}

// Every stem is its tap under a moving gain, with something of the next two taps in it.
Song song_of(const std::vector<Sound>& sounds, double seconds, int sr, std::size_t channels) {
  std::mt19937 random(11);
  Song song;
  song.sr = sr;
  const auto frames = static_cast<std::size_t>(seconds * sr);
  for (std::size_t s = 0; s < sounds.size(); ++s) {
    song.taps.push_back({"stem " + std::string(1, static_cast<char>('A' + s)),
                         AudioArray::zeros(channels, frames)});
    for (std::size_t c = 0; c < channels; ++c) {
      play(sounds[s], song.taps[s].audio.row(c), sr, random);
    }
  }
  const auto tap = [&](std::size_t s) { return song.taps[s % sounds.size()].audio.view(); };
  for (std::size_t s = 0; s < sounds.size(); ++s) {
    auto est = AudioArray::zeros(channels, frames);
    const double bleed = s % 2 == 0 ? 0.3 : 0.02;
    for (std::size_t c = 0; c < channels; ++c) {
      for (std::size_t i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / sr;
        est.row(c)[i] = tap(s).row(c)[i] * (0.8 + 0.15 * std::sin(8 * t)) +
                        bleed * tap(s + 1).row(c)[i] * (0.5 + 0.5 * std::sin(5 * t)) +
                        0.3 * bleed * tap(s + 2).row(c)[i];
      }
    }
    song.est.push_back({song.taps[s].name, std::move(est)});
  }
  return song;
}

void scale(AudioArray& audio, double factor) {
  for (double& x : audio.flat()) x *= factor;
}

void expect_near_definition(const ReportJob& job) {
  const auto figures = measure_contamination(job),
             expected = testing::ReferenceContamination(job).figures();
  ASSERT_EQ(figures.size(), expected.size());
  for (std::size_t s = 0; s < figures.size(); ++s) {
    SCOPED_TRACE(job.est[s].name);
    if (expected[s].ratio < -60) {
      // What is left is below the comparison's floor, or single precision's.
      EXPECT_NEAR(figures[s].ratio, expected[s].ratio, 3.0);
      continue;
    }
    EXPECT_NEAR(figures[s].ratio, expected[s].ratio, 0.02);
    for (std::size_t other = 0; other < figures.size(); ++other) {
      const double r = expected[s].resemblance[other];
      if (std::isnan(r)) {
        EXPECT_TRUE(std::isnan(figures[s].resemblance[other]));
      } else {
        EXPECT_NEAR(figures[s].resemblance[other], r, 0.003) << "other " << other;
      }
    }
  }
}

// 14.1 s at 22.05 kHz take two slices, 2.95 s leave no silence behind the song in its transform,
// and what is shorter than 1.5 s is taken at the full rate, down to less than one window.
TEST(ContaminationReport, FiguresAreThoseOfTheDefinition) {
  const struct {
    std::vector<Sound> sounds;
    double seconds;
    int sr;
    std::size_t n_bands, channels = 1;
  } kMaterials[] = {
      {{kDrum, kNoise}, 2.2, 44100, 128},       {{kBass, kChord, kNoise}, 4.0, 22050, 128},
      {{kChord, kDrum}, 2.0, 22050, 32, 2},     {{kBass, kNoise}, 1.6, 96000, 32},
      {{kBass, kDrum}, 14.1, 22050, 32},        {{kBass, kDrum}, 2.95, 22050, 128},
      {{kDrum, kChord, kBass}, 0.7, 48000, 32}, {{kNoise, kChord}, 0.03, 44100, 128}};
  for (const auto& m : kMaterials) {
    SCOPED_TRACE(::testing::Message() << m.seconds << " s at " << m.sr << " Hz");
    expect_near_definition(song_of(m.sounds, m.seconds, m.sr, m.channels).job(m.n_bands));
  }
}

TEST(ContaminationReport, ExtremeStemsAreThoseOfTheDefinition) {
  Song song = song_of({kDrum, kBass, kChord, kNoise, kBass, kDrum}, 3.2, 22050, 1);
  const auto est = [&](std::size_t s) -> AudioArray& { return song.est[s].audio; };
  const auto tap = [&](std::size_t s) -> AudioArray& { return song.taps[s].audio; };
  est(0) = AudioArray::copy_of(tap(0).view());
  scale(tap(1), 0.0);
  est(2) = AudioArray::copy_of(tap(2).view());
  scale(est(2), -0.9);
  scale(tap(3), 0.002);
  scale(est(4), 0.0);
  std::ranges::fill(tap(5).flat().subspan(28000), 0.0);  // a tap that falls silent
  std::ranges::fill(est(5).flat().subspan(50000, 14000), 0.0);
  for (const std::size_t n_bands : {32u, 128u}) {
    const ReportJob job = song.job(n_bands);
    expect_near_definition(job);
    const auto figures = measure_contamination(job);
    EXPECT_LT(figures[0].ratio, -130) << "equal to its tap";
    EXPECT_NEAR(figures[1].ratio, 0.0, 1e-6) << "nothing in its tap";
    EXPECT_NEAR(figures[2].ratio, 0.0, 1e-6) << "opposite phase";
    EXPECT_GT(figures[3].ratio, -3.0) << "gain over 50";
    EXPECT_EQ(figures[4].ratio, 0.0) << "silent";
    EXPECT_GT(figures[2].resemblance[5], -1.0) << "a tap that falls silent has an envelope";
    EXPECT_TRUE(std::isnan(figures[0].resemblance[1])) << "a silent one does not move";
  }
}

TEST(ContaminationReport, ExcerptDoesNotDependOnTheSourcesLength) {
  const Song song = song_of({kDrum, kChord}, 2.0, 22050, 1);
  ReportJob job = song.job(32);
  const auto short_source = measure_contamination(job);
  job.nfft *= 1024;
  const auto long_source = measure_contamination(job);
  for (std::size_t s = 0; s < 2; ++s) {
    EXPECT_NEAR(long_source[s].ratio, short_source[s].ratio, 0.02);
  }
}

TEST(ContaminationReport, FiguresDoNotDependOnTheWorkers) {
  const Song song = song_of({kDrum, kBass, kChord}, 16.0, 22050, 2);
  const auto alone = measure_contamination(song.job(32));
  for (const std::size_t workers : {2u, 5u, 64u}) {
    const auto shared = measure_contamination(song.job(32, workers));
    for (std::size_t s = 0; s < alone.size(); ++s) {
      EXPECT_EQ(shared[s].ratio, alone[s].ratio);
      for (std::size_t other = 0; other < alone.size(); ++other) {
        EXPECT_TRUE(other == s || shared[s].resemblance[other] == alone[s].resemblance[other]);
      }
    }
  }
}

TEST(ContaminationReport, StopsWhenAsked) {
  const Song song = song_of({kDrum, kBass}, 2.0, 22050, 1);
  const std::atomic<bool> stop{true};
  for (const std::size_t workers : {1u, 3u}) {
    EXPECT_THROW(measure_contamination(song.job(32, workers), StopToken(stop)), Cancelled);
  }
}

TEST(ContaminationReport, LinesTellLevelLikenessAndFlag) {
  const StemViews taps = {{"Kick", {}}, {"Snare", {}}, {"Hats", {}}};
  struct Case {
    const char* name;
    StemContamination figures;
    const char* line;
  };
  const Case cases[] = {
      {"Kick",
       {-19.46, {kNoNumber, -0.3, 0.0}},
       "  Kick           foreign  -19.5 dB     <-- check this"},
      {"Kick",
       {-20.0, {kNoNumber, 0.2, 0.1}},
       "  Kick           foreign  -20.0 dB   resembles Snare (0.20)"},
      {"Kick",
       {-19.99, {kNoNumber, 0.5, 0.5}},
       "  Kick           foreign  -20.0 dB   resembles Snare (0.50)  <-- check this"},
      {"Snare",
       {-979.0, {0.001, kNoNumber, kNoNumber}},
       "  Snare          foreign -979.0 dB   resembles Kick (0.00)"},
      {"Snare",
       {-1e-9, {kNoNumber, kNoNumber, kNoNumber}},
       "  Snare          foreign    0.0 dB     <-- check this"},
      {"Schlagzeug über alles",
       {-51.25, {-1.0, 0.994, 0.996}},
       "  Schlagzeug über alles foreign  -51.2 dB   resembles Hats (1.00)"},
      {"Bässe",
       {1.26, {0.1, 0.0, 0.0}},
       "  Bässe          foreign    1.3 dB   resembles Kick (0.10)  <-- check this"},
  };
  for (const Case& c : cases) EXPECT_EQ(report_line(c.name, c.figures, taps), c.line);
}

}  // namespace
}  // namespace verdel::internal
