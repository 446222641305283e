#include "delivery/contamination_report.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <functional>
#include <limits>
#include <numbers>
#include <ostream>
#include <random>
#include <string>

#include "reference_contamination.hpp"
#include "support/errors.hpp"

namespace verdel {
namespace {

using ::testing::ElementsAre;

constexpr double kNoNumber = std::numeric_limits<double>::quiet_NaN();

// A song whose sounds are known by name.
struct Song {
  StemMap est, taps;
  int sr = 0;

  std::size_t frames() const { return est.front().audio.columns(); }
  ReportJob job(std::size_t n_bands, std::size_t workers = 1) const {
    return {.est = views_of(est),
            .taps = views_of(taps),
            .sr = sr,
            .n_bands = n_bands,
            .nfft = std::bit_ceil(frames() + 1),
            .workers = workers};
  }
};

using Sound = std::function<void(std::span<double>, double sr, std::mt19937&)>;

void drum(std::span<double> out, double sr, std::mt19937& random) {
  std::normal_distribution<double> noise;
  double envelope = 0.0, phase = 0.0;
  for (std::size_t i = 0; i < out.size(); ++i) {
    if (i % static_cast<std::size_t>(0.31 * sr) == static_cast<std::size_t>(0.1 * sr)) {
      envelope = 0.8;
    }
    phase += 2 * std::numbers::pi * 70 * (1 + 3 * envelope) / sr;
    out[i] = envelope * (0.7 * std::sin(phase) + 0.3 * noise(random));
    envelope *= std::exp(-1 / (0.07 * sr));
  }
}

void bass(std::span<double> out, double sr, std::mt19937& random) {
  std::uniform_int_distribution<int> note(0, 12);
  double frequency = 0.0, phase = 0.0;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const std::size_t in_note = i % static_cast<std::size_t>(0.43 * sr);
    if (in_note == 0) frequency = 41.2 * std::exp2(note(random) / 12.0);
    phase += 2 * std::numbers::pi * frequency / sr;
    out[i] = 0.4 * std::exp(-3 * static_cast<double>(in_note) / sr) *
             (std::sin(phase) + 0.3 * std::sin(2 * phase) + 0.1 * std::sin(3 * phase));
  }
}

void chord(std::span<double> out, double sr, std::mt19937&) {
  for (std::size_t i = 0; i < out.size(); ++i) {
    const double t = static_cast<double>(i) / sr;
    out[i] = 0.0;
    for (const double frequency : {220.0, 277.2, 329.6, 440.0, 2093.0}) {
      out[i] += 0.1 * std::sin(2 * std::numbers::pi * frequency * t + frequency);
    }
    out[i] *= 0.6 + 0.4 * std::sin(2 * std::numbers::pi * 0.7 * t);
  }
}

void noise(std::span<double> out, double sr, std::mt19937& random) {
  std::normal_distribution<double> sample(0.0, 0.1);
  for (std::size_t i = 0; i < out.size(); ++i) {
    out[i] = sample(random) * (1 + 0.5 * std::sin(3 * static_cast<double>(i) / sr));
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
      sounds[s](song.taps[s].audio.row(c), sr, random);
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

void silence(AudioArray& audio, double from, double to) {
  for (std::size_t c = 0; c < audio.rows(); ++c) {
    const auto row = audio.row(c);
    const auto n = static_cast<double>(row.size());
    std::fill(row.begin() + static_cast<std::ptrdiff_t>(from * n),
              row.begin() + static_cast<std::ptrdiff_t>(to * n), 0.0);
  }
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

struct Material {
  const char* name;
  std::vector<Sound> sounds;
  double seconds;
  int sr;
  std::size_t n_bands;
  std::size_t channels = 1;
  friend std::ostream& operator<<(std::ostream& out, const Material& m) {
    return out << m.name << " of " << m.seconds << " s at " << m.sr << " Hz, " << m.n_bands;
  }
};

class ContaminationMaterial : public ::testing::TestWithParam<Material> {};

TEST_P(ContaminationMaterial, FiguresAreThoseOfTheDefinition) {
  const Material& m = GetParam();
  expect_near_definition(song_of(m.sounds, m.seconds, m.sr, m.channels).job(m.n_bands));
}

// 14.1 s at 22.05 kHz take two slices, 2.95 s leave no silence behind the song in its transform,
// and what is shorter than 1.5 s is taken at the full rate, down to less than one window.
INSTANTIATE_TEST_SUITE_P(
    All, ContaminationMaterial,
    ::testing::Values(Material{"drums and bass", {drum, bass}, 2.2, 44100, 128},
                      Material{"drums and noise", {drum, noise}, 2.2, 44100, 32},
                      Material{"bass and chords", {bass, chord, noise}, 4.0, 22050, 128},
                      Material{"chords and noise", {chord, noise}, 1.8, 22050, 32},
                      Material{"stereo", {chord, drum}, 2.0, 22050, 32, 2},
                      Material{"high rate", {bass, noise}, 1.6, 96000, 32},
                      Material{"two slices", {bass, drum}, 14.1, 22050, 32},
                      Material{"no silence behind", {bass, drum}, 2.95, 22050, 128},
                      Material{"excerpt", {drum, chord, bass}, 0.7, 48000, 32},
                      Material{"one window", {noise, chord}, 0.03, 44100, 128}));

TEST(ContaminationReport, ExtremeStemsAreThoseOfTheDefinition) {
  Song song = song_of({drum, bass, chord, noise, bass, drum}, 3.2, 22050, 1);
  const auto est = [&](std::size_t s) -> AudioArray& { return song.est[s].audio; };
  const auto tap = [&](std::size_t s) -> AudioArray& { return song.taps[s].audio; };
  est(0) = AudioArray::copy_of(tap(0).view());
  scale(tap(1), 0.0);
  est(2) = AudioArray::copy_of(tap(2).view());
  scale(est(2), -0.9);
  scale(tap(3), 0.002);
  scale(est(4), 0.0);
  silence(tap(5), 0.4, 1.0);  // a tap that falls silent
  silence(est(5), 0.7, 0.9);
  for (const std::size_t n_bands : {32u, 128u}) {
    const ReportJob job = song.job(n_bands);
    expect_near_definition(job);
    const auto figures = measure_contamination(job);
    EXPECT_LT(figures[0].ratio, -130) << "equal to its tap";
    EXPECT_NEAR(figures[1].ratio, 0.0, 1e-6) << "nothing in its tap";
    EXPECT_NEAR(figures[2].ratio, 0.0, 1e-6) << "opposite phase";
    EXPECT_GT(figures[3].ratio, -3.0) << "gain over 50";
    EXPECT_EQ(figures[4].ratio, 0.0) << "silent";
    EXPECT_GT(figures[0].resemblance[5], -1.0) << "a tap that falls silent has an envelope";
    EXPECT_TRUE(std::isnan(figures[0].resemblance[1])) << "a silent one does not move";
  }
}

TEST(ContaminationReport, ExcerptDoesNotDependOnTheSourcesLength) {
  const Song song = song_of({drum, chord}, 2.0, 22050, 1);
  ReportJob job = song.job(32);
  const auto short_source = measure_contamination(job);
  job.nfft *= 1024;
  const auto long_source = measure_contamination(job);
  for (std::size_t s = 0; s < 2; ++s) {
    EXPECT_NEAR(long_source[s].ratio, short_source[s].ratio, 0.02);
  }
}

TEST(ContaminationReport, FiguresDoNotDependOnTheWorkers) {
  const Song song = song_of({drum, bass, chord}, 16.0, 22050, 2);
  const auto alone = measure_contamination(song.job(32));
  for (const std::size_t workers : {2u, 5u, 64u}) {
    const auto shared = measure_contamination(song.job(32, workers));
    for (std::size_t s = 0; s < alone.size(); ++s) {
      EXPECT_EQ(shared[s].ratio, alone[s].ratio);
      for (std::size_t other = 0; other < alone.size(); ++other) {
        if (other == s) continue;
        EXPECT_EQ(shared[s].resemblance[other], alone[s].resemblance[other]);
      }
    }
  }
}

TEST(ContaminationReport, StopsWhenAsked) {
  const Song song = song_of({drum, bass}, 2.0, 22050, 1);
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

TEST(ContaminationReport, PrintsHeadStemsAndFootInOrder) {
  Song song = song_of({drum, bass}, 0.3, 22050, 1);
  scale(song.est[0].audio, 0.0);
  scale(song.taps[1].audio, 0.0);
  std::vector<std::string> lines;
  report(song.job(32), [&](std::string_view line) { lines.emplace_back(line); });
  EXPECT_THAT(lines,
              ElementsAre("", "--- contamination report ---",
                          "how much of each stem is not its own source, and what it looks like", "",
                          "  stem A         foreign    0.0 dB     <-- check this",
                          ::testing::StartsWith("  stem B         foreign    0.0 dB   "), "",
                          "  under -30 dB is clean, -20 to -30 is usually inaudible,",
                          "  above -20 dB you will probably hear it."));
}

}  // namespace
}  // namespace verdel
