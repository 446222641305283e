#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <numbers>
#include <string>

#include "contamination/envelopes.hpp"
#include "contamination/gain.hpp"
#include "contamination/report.hpp"
#include "contamination/slices.hpp"
#include "reference_contamination.hpp"
#include "support/errors.hpp"
#include "support/noise.hpp"
#include "support/precision.hpp"

namespace verdel::internal {
namespace {

// Noise and tones, silent at first where they are struck every beat and die away.
struct Sound {
  double noise, beat, decay;
  std::vector<double> tones;
};
const Sound kDrum{0.3, 0.31, 14, {70, 150}};
const Sound kBass{0.0, 0.43, 3, {41.2, 82.4, 123.6}};
const Sound kChord{0.0, 1e9, 0, {220, 277.2, 329.6, 440, 2093}};
const Sound kNoise{0.15, 1e9, 0, {}};

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

// Every stem is its tap under a moving gain, with something of the next two taps in it.
Song song_of(const std::vector<Sound>& sounds, double seconds, int sr, std::size_t channels) {
  Song song{.est = {}, .taps = {}, .sr = sr};
  const auto frames = static_cast<std::size_t>(seconds * sr);
  const auto time = [sr](std::size_t i) { return static_cast<double>(i) / sr; };
  for (const Sound& sound : sounds) {
    const auto seed = static_cast<unsigned>(song.taps.size());
    auto tap = testing::noise_array(channels, frames, seed);
    for (std::size_t k = 0; k < tap.size(); ++k) {
      const double t = time(k % frames);
      double value = sound.noise * tap.flat()[k];
      for (const double hz : sound.tones) value += 0.1 * std::sin(2 * std::numbers::pi * hz * t);
      tap.flat()[k] = sound.decay > 0.0 && t < 0.1
                          ? 0.0
                          : value * (1 + 0.5 * std::sin(4 * t)) *
                                std::exp(-sound.decay * std::fmod(t + 0.2, sound.beat));
    }
    song.taps.push_back({"tap " + std::to_string(seed), testing::rounded(tap.view())});
  }
  for (std::size_t s = 0; s < sounds.size(); ++s) {
    auto est = testing::widened(song.taps[s].audio.view());
    const auto next = testing::widened(song.taps[(s + 1) % sounds.size()].audio.view());
    const auto third = testing::widened(song.taps[(s + 2) % sounds.size()].audio.view());
    const double bleed = s % 2 == 0 ? 0.3 : 0.02;
    for (std::size_t k = 0; k < est.size(); ++k) {
      const double t = time(k % frames);
      est.flat()[k] = est.flat()[k] * (0.8 + 0.15 * std::sin(8 * t)) +
                      bleed * next.flat()[k] * (0.5 + 0.5 * std::sin(5 * t)) +
                      0.3 * bleed * third.flat()[k];
    }
    song.est.push_back({song.taps[s].name, testing::rounded(est.view())});
  }
  return song;
}

void expect_near_definition(const ReportJob& job) {
  const auto figures = measure_contamination(job),
             expected = testing::ReferenceContamination(job).figures();
  for (std::size_t s = 0; s < figures.size(); ++s) {
    SCOPED_TRACE(job.est[s].name);
    // What is left below is below the comparison's floor, or single precision's.
    const bool audible = expected[s].ratio >= -60;
    EXPECT_NEAR(figures[s].ratio, expected[s].ratio, audible ? 0.02 : 3.0);
    for (std::size_t other = 0; audible && other < figures.size(); ++other) {
      const double r = expected[s].resemblance[other], found = figures[s].resemblance[other];
      EXPECT_TRUE(std::isnan(r) ? std::isnan(found) : std::abs(found - r) < 0.003) << other;
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
  } kMaterials[] = {{{kDrum, kNoise}, 2.2, 44100, 128},  {{kChord, kDrum}, 2.0, 22050, 32, 2},
                    {{kBass, kNoise}, 1.6, 96000, 32},   {{kBass, kDrum}, 14.1, 22050, 32},
                    {{kBass, kDrum}, 2.95, 22050, 128},  {{kDrum, kChord, kBass}, 0.7, 48000, 32},
                    {{kNoise, kChord}, 0.03, 44100, 128}};
  for (const auto& m : kMaterials) {
    SCOPED_TRACE(::testing::Message() << m.seconds << " s at " << m.sr << " Hz");
    expect_near_definition(song_of(m.sounds, m.seconds, m.sr, m.channels).job(m.n_bands));
  }
}

TEST(ContaminationReport, ExtremeStemsAreThoseOfTheDefinition) {
  Song song = song_of({kDrum, kBass, kChord, kNoise, kBass, kDrum}, 3.2, 22050, 1);
  // What becomes of a stem and its tap, and the ratio that must come out.
  const struct {
    float gain_of_tap, stem, tap;
    double ratio, tolerance;
  } kCases[] = {{1, 0, 1, -150, 20},        // equal to its tap
                {0, 1, 0, 0, 1e-6},         // nothing in its tap
                {-0.9F, 0, 1, 0, 1e-6},     // opposite phase
                {0, 1, 0.002F, -1.5, 1.5},  // a gain over 50
                {0, 0, 1, 0, 0}};           // silent
  for (std::size_t s = 0; s < std::size(kCases); ++s) {
    const auto est = song.est[s].audio.flat(), tap = song.taps[s].audio.flat();
    for (std::size_t i = 0; i < est.size(); ++i) {
      est[i] = kCases[s].stem * est[i] + kCases[s].gain_of_tap * tap[i];
      tap[i] *= kCases[s].tap;
    }
  }
  std::ranges::fill(song.taps[5].audio.flat().subspan(28000), 0.0F);  // falls silent
  std::ranges::fill(song.est[5].audio.flat().subspan(50000, 14000), 0.0F);
  const ReportJob job = song.job(128);
  expect_near_definition(job);
  const auto figures = measure_contamination(job);
  for (std::size_t s = 0; s < std::size(kCases); ++s) {
    EXPECT_NEAR(figures[s].ratio, kCases[s].ratio, kCases[s].tolerance) << s;
  }
}

TEST(ContaminationReport, WorkersAndTheSourcesLengthDoNotMatterAndAStopDoes) {
  const Song song = song_of({kDrum, kBass, kChord}, 16.0, 22050, 2);
  const auto alone = measure_contamination(song.job(32));
  ReportJob of_long_source = song.job(32);
  of_long_source.nfft *= 64;
  const auto longer = measure_contamination(of_long_source);
  const std::atomic<bool> stop{true};
  for (const std::size_t workers : {1u, 2u, 64u}) {
    const auto shared = measure_contamination(song.job(32, workers));
    for (std::size_t s = 0; s < alone.size(); ++s) {
      EXPECT_EQ(shared[s].ratio, alone[s].ratio);
      EXPECT_EQ(shared[s].resemblance[(s + 1) % 3], alone[s].resemblance[(s + 1) % 3]);
      EXPECT_NEAR(longer[s].ratio, alone[s].ratio, 0.02);
    }
    EXPECT_THROW(measure_contamination(song.job(32, workers), StopToken(stop)), Cancelled);
  }
}

TEST(ContaminationReport, LinesTellLevelLikenessAndFlag) {
  const StemViews taps = {{"Kick", {}}, {"Snare", {}}, {"Hats", {}}};
  const auto line = [&](const char* name, double ratio, std::vector<double> resemblance) {
    return report_line(name, {ratio, std::move(resemblance)}, taps);
  };
  EXPECT_EQ(line("Kick", -19.46, {std::nan(""), -0.3, 0.0}),
            "  Kick           foreign  -19.5 dB     <-- check this");
  EXPECT_EQ(line("Kick", -20.0, {std::nan(""), 0.2, 0.1}),
            "  Kick           foreign  -20.0 dB   resembles Snare (0.20)");
  EXPECT_EQ(line("Kick", -19.99, {std::nan(""), 0.5, 0.5}),
            "  Kick           foreign  -20.0 dB   resembles Snare (0.50)  <-- check this");
  EXPECT_EQ(line("Snare", -979.0, {0.001, std::nan(""), std::nan("")}),
            "  Snare          foreign -979.0 dB   resembles Kick (0.00)");
  EXPECT_EQ(line("Bässe", -1e-9, {std::nan(""), std::nan(""), std::nan("")}),
            "  Bässe          foreign    0.0 dB     <-- check this");
  EXPECT_EQ(line("Schlagzeug über alles", -51.25, {-1.0, 0.994, 0.996}),
            "  Schlagzeug über alles foreign  -51.2 dB   resembles Hats (1.00)");
}

// One slice and several, circles that leave silence behind the song and others; what is shorter
// than 1.5 s has no context, elsewhere it is 0.75 s, or half of what the circle leaves.
TEST(ContaminationSlices, CoresTileTheSongAndSlicesHoldTheirContext) {
  const struct {
    std::size_t frames;
    int sr;
    std::size_t nfft, context;
  } kCases[] = {{1, 44100, 2, 0},
                {66149, 44100, 1 << 24, 0},
                {66150, 44100, 1 << 24, 33075},
                {130000, 44100, 1 << 17, 536},
                {2646001, 44100, 1 << 22, 33075},
                {28800000, 96000, 1 << 25, 72000},
                {10000019, 22050, 1 << 24, 16537},
                {2000000, 192000, 1 << 21, 48576}};
  for (const auto& c : kCases) {
    const SlicePlan plan = plan_slices(c.frames, c.sr, c.nfft);
    EXPECT_EQ(plan.context, c.context) << c.frames;
    EXPECT_LE(plan.length, c.nfft);
    std::size_t covered = 0;
    for (std::size_t k = 0; k < plan.count; ++k) {
      ASSERT_EQ(plan.core_begin(k), covered);
      ASSERT_EQ(covered % plan.cell, 0u);
      covered += plan.core_frames(k);
      const SlicePlan::Extent extent = plan.extent(k);
      ASSERT_LE(extent.stop, plan.length);
      ASSERT_EQ(extent.song_first + (plan.context - extent.first), plan.core_begin(k));
      ASSERT_GE(extent.stop, plan.context + plan.core_frames(k));
      // Context on both sides as far as there is song, and silence between its end and its
      // beginning, where the circle closes.
      ASSERT_TRUE(k == 0 || extent.first == 0);
      const bool to_the_end = extent.song_first + extent.frames() == c.frames;
      ASSERT_EQ(to_the_end, k + 1 == plan.count);
      ASSERT_TRUE(!to_the_end || plan.full_rate || plan.length - extent.stop >= plan.context);
    }
    EXPECT_EQ(covered, c.frames);
  }
  for (const auto& [least, length] : {std::pair{1, 2},
                                      {17, 20},
                                      {21, 24},
                                      {25, 30},
                                      {31, 32},
                                      {33, 40},
                                      {4097, 5120},
                                      {5121, 6144},
                                      {6145, 7680}}) {
    EXPECT_EQ(good_transform_length(static_cast<std::size_t>(least)), length);
  }
}

TEST(ContaminationWindows, SumsAreThoseOfAPlainLoopAndSilenceAfterSoundIsSilent) {
  auto signal = testing::noise(8000, 3);
  std::fill(signal.begin() + 7000, signal.end(), 0.0);
  const std::vector<float> values(signal.begin(), signal.end());
  std::vector<double> scratch;
  for (const double width : {1.0, 1.5, 4.0, 8.2, 17.0, 31.9, 33.0, 64.4, 1000.5, 2205.0}) {
    for (const GridWindow& window :
         {GridWindow::over_cells(width), GridWindow::over_samples(std::max(width, 4.0))}) {
      for (const std::size_t count : {1u, 511u, 513u, 1500u}) {
        const auto padded = std::span(values).last(count + 2 * window.padding());
        std::vector<float> whole(count), ends(count);
        window_sums(padded, window, scratch, whole, ends);
        for (std::size_t i = 0; i < count; ++i) {
          const float* const centre = &padded[window.padding() + i];
          double inner = 0.0, outer = 0.0;
          for (std::size_t k = 0; k <= window.padding(); ++k) {
            const double pair = (k == 0 ? 0.0 : static_cast<double>(*(centre - k))) +
                                static_cast<double>(centre[k]);
            if (k <= window.reach) inner += pair;
            if (k > window.reach) outer += window.ends[k - window.reach - 1] * pair;
          }
          const bool silent = inner == 0.0 && outer == 0.0;
          ASSERT_NEAR(whole[i], inner, silent ? 0.0 : 1e-7 * (1 + width)) << i << " of " << count;
          ASSERT_NEAR(ends[i], outer, silent ? 0.0 : 1e-6);
        }
      }
    }
  }
}

// A cosine around 0, whose integral over a window of any width is known; the error of a cubic grows
// with the fourth power of the frequency.
TEST(ContaminationWindows, SamplesGiveTheIntegralBetweenThem) {
  for (const double omega : {1e-9, 0.12, 0.6}) {
    for (double width = 10.0; width < 14.0; width += 0.17) {
      const GridWindow window = GridWindow::over_samples(width);
      double sum = -1.0;
      for (std::size_t k = 0; k <= window.padding(); ++k) {
        const double weight = k <= window.reach ? 1.0 : window.ends[k - window.reach - 1];
        sum += 2.0 * weight * std::cos(omega * static_cast<double>(k));
      }
      EXPECT_NEAR(sum, 2 / omega * std::sin(omega * width / 2), 1e-12 + 0.5 * std::pow(omega, 4));
    }
  }
}

TEST(ContaminationEnvelopes, TheLastCellMayHoldFewerSamples) {
  auto audio = StemArray::zeros(2, 17);
  std::ranges::fill(audio.flat(), 0.5F);
  std::vector<float> cells(2);
  mean_square_cells(audio.view(), 16, cells);
  EXPECT_EQ(cells, (std::vector{0.25F, 0.25F}));
}

template <class Sample>
void expect_equal_signals_to_leave_nothing() {
  std::vector<Sample> tap(900);
  const auto values = testing::noise(1800, 3);
  for (std::size_t i = 0; i < 900; ++i) {
    // One loud point among quiet ones: it must not spoil the windows that end beside it.
    const double level = i == 450 ? 1e3 : i >= 300 && i < 600 ? 1e-3 : 1.0;
    tap[i] = static_cast<float>(level * values[i]);
    if constexpr (!std::is_floating_point_v<Sample>)
      tap[i] += Sample(0, static_cast<float>(values[i + 900]));
  }
  std::vector<Sample> rest = tap;
  ComparisonScratch scratch;
  const GridExtent extent{.step = 7.3, .length = 6570, .first = 100, .stop = 6100};
  const GridWindow window = GridWindow::over_samples(21.6);
  EXPECT_TRUE(remove_explained(extent, window, tap, rest, scratch));
  for (std::size_t i = extent.point_begin(); i < extent.point_end(); ++i) {
    ASSERT_EQ(rest[i], Sample()) << i;
  }
  EXPECT_FALSE(remove_explained(extent, window, std::vector<Sample>(900), rest, scratch));
}

TEST(ContaminationGain, EqualSignalsLeaveExactlyNothing) {
  expect_equal_signals_to_leave_nothing<float>();
  expect_equal_signals_to_leave_nothing<std::complex<float>>();
}

}  // namespace
}  // namespace verdel::internal
