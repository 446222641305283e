#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <numbers>
#include <numeric>
#include <random>

#include "contamination/bands.hpp"
#include "contamination/envelopes.hpp"
#include "contamination/gain.hpp"
#include "contamination/slices.hpp"
#include "contamination/windows.hpp"
#include "gain/band_masks.hpp"
#include "support/moving_average.hpp"
#include "support/noise.hpp"

// The report's parts, each against what it stands for.
namespace verdel::internal {
namespace {

using Complex = std::complex<float>;

Complex draw(std::mt19937& random) {
  std::normal_distribution<float> value(0, 0.2F);
  const float real = value(random);
  return {real, value(random)};
}

TEST(ContaminationBands, TakenAndAddedBandsAreTheMaskedSpectrum) {
  constexpr std::size_t kLength = 1 << 16;
  for (const auto& [sr, n_bands] :
       {std::pair{22050, 2U}, {44100, 32U}, {96000, 128U}, {48000, 5U}}) {
    const BandLayout layout = lay_out_bands(kLength, sr, n_bands, n_bands == 5);
    const StreamedBandMasks masks(kLength, sr, n_bands);
    std::mt19937 random(5);
    std::vector<Complex> spectrum(layout.bins());
    for (auto& bin : spectrum) bin = draw(random);
    ASSERT_EQ(layout.bands.size(), n_bands);
    for (std::size_t k = 0; k < n_bands; ++k) {
      const ReportBand& band = layout.bands[k];
      std::vector<Complex> taken(band.complex() ? band.points : band.points / 2 + 1);
      std::vector<Complex> alone(layout.bins());
      take_band(layout, band, spectrum, taken);
      // What an inverse transform and the forward one back do to a spectrum.
      for (auto& bin : taken) bin *= static_cast<float>(band.points);
      add_band(layout, band, taken, alone);
      const std::vector<double> mask = masks[k];
      for (std::size_t i = 0; i < alone.size(); ++i) {
        const auto expected = static_cast<float>(mask[i]) * spectrum[i];
        ASSERT_LT(std::abs(static_cast<float>(kLength) * alone[i] - expected), 2e-6F)
            << sr << " Hz, band " << k << " of " << n_bands << ", bin " << i;
      }
    }
  }
}

// One slice and several, circles that leave silence behind the song and others; what is shorter
// than 1.5 s has no context, elsewhere it is 0.75 s, or half of what the circle leaves.
TEST(ContaminationSlices, CoresTileTheSongAndSlicesHoldTheirContext) {
  const struct {
    std::size_t frames;
    int sr;
    std::size_t nfft, context, length;
  } kCases[] = {{1, 44100, 2, 0, 2},
                {66149, 44100, 1 << 24, 0, 1 << 17},
                {66150, 44100, 1 << 24, 33075, 163840},
                {130000, 44100, 1 << 17, 536, 1 << 17},
                {2646001, 44100, 1 << 22, 33075, 0},
                {28800000, 96000, 1 << 25, 72000, 0},
                {10000019, 22050, 1 << 24, 16537, 0},
                {2000000, 192000, 1 << 21, 48576, 1 << 21}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.frames);
    const SlicePlan plan = plan_slices(c.frames, c.sr, c.nfft);
    EXPECT_EQ(plan.context, c.context);
    EXPECT_LE(plan.length, c.length == 0 ? 655360 : c.length);
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
      const double weight = std::accumulate(window.ends.begin(), window.ends.end(), 0.0);
      EXPECT_NEAR(2 * static_cast<double>(window.reach) + 1 + 2 * weight, window.width, 1e-12);
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

template <class Sample>
class ContaminationGain : public ::testing::Test {};
using Samples = ::testing::Types<float, Complex>;
TYPED_TEST_SUITE(ContaminationGain, Samples);

TYPED_TEST(ContaminationGain, IsThatOfAPlainLoop) {
  std::mt19937 random(9);
  for (const std::size_t points : {1u, 3u, 40u, 700u}) {
    // The song as the circle's one part, and at the full rate.
    std::vector<TypeParam> tap(points + 50), stem(points + 50);
    std::vector<double> cross(points), energy(points);
    for (std::size_t i = 0; i < points; ++i) {
      const Complex pair[] = {draw(random), draw(random)};
      std::memcpy(&tap[i], &pair[0], sizeof(TypeParam));
      std::memcpy(&stem[i], &pair[1], sizeof(TypeParam));
      stem[i] = 0.7F * tap[i] + 0.3F * stem[i];
      if (i > 100) tap[i] *= 0.005F;         // gains above 50
      if (i > 250) tap[i] *= 1e-6F;          // below the floor
      if (i > 400) tap[i] = -3e5F * tap[i];  // opposite phase
      cross[i] = static_cast<double>(std::real(stem[i] * std::conj(tap[i])));
      energy[i] = static_cast<double>(std::norm(tap[i]));
    }
    cross = testing::moving_average(cross, 11);
    energy = testing::moving_average(energy, 11);
    std::vector<TypeParam> rest = stem;
    const GridExtent extent{.step = 1.0, .length = points + 50, .first = 0, .stop = points};
    ComparisonScratch scratch;
    EXPECT_TRUE(remove_explained(extent, GridWindow::over_cells(11), tap, rest, scratch));
    for (std::size_t i = 0; i < points; ++i) {
      const double gain = energy[i] > 1e-14 ? std::clamp(cross[i] / energy[i], 0.0, 50.0) : 0.0;
      const auto expected = stem[i] - static_cast<float>(gain) * tap[i];
      ASSERT_LT(std::abs(rest[i] - expected), 2e-5F) << i << " of " << points;
    }
  }
}

TYPED_TEST(ContaminationGain, EqualSignalsLeaveExactlyNothing) {
  std::mt19937 random(2);
  std::vector<TypeParam> tap(900);
  // One loud point among quiet ones: it must not spoil the windows that end beside it.
  for (std::size_t i = 0; i < 900; ++i) {
    tap[i] = TypeParam(draw(random).real() * (i >= 300 && i < 600 ? 1e-3F : 1.0F));
  }
  tap[450] = TypeParam(1e3F);
  std::vector<TypeParam> rest = tap;
  ComparisonScratch scratch;
  const GridExtent extent{.step = 7.3, .length = 6570, .first = 100, .stop = 6100};
  const GridWindow window = GridWindow::over_samples(21.6);
  remove_explained(extent, window, tap, rest, scratch);
  for (std::size_t i = extent.point_begin(); i < extent.point_end(); ++i) {
    ASSERT_EQ(rest[i], TypeParam()) << i;
  }
  EXPECT_FALSE(remove_explained(extent, window, std::vector<TypeParam>(900), rest, scratch));
}

TEST(ContaminationEnvelopes, AreOfMeanSquaresOfTheMonoSum) {
  const auto audio = testing::noise_array(2, 1041, 4);
  std::vector<float> cells(66);
  mean_square_cells(audio.view(), 16, cells);
  for (std::size_t k = 0; k < cells.size(); ++k) {
    double sum = 0.0;
    const std::size_t stop = std::min<std::size_t>(16 * k + 16, 1041);
    for (std::size_t i = 16 * k; i < stop; ++i) {
      sum += std::pow((audio.row(0)[i] + audio.row(1)[i]) / 2, 2);
    }
    EXPECT_NEAR(cells[k], sum / static_cast<double>(stop - 16 * k), 1e-6) << k;
  }
  const auto moving = envelope_curve(cells, 27.6);
  EXPECT_NEAR(correlation(moving, moving), 1.0, 1e-9);
  for (const float level : {0.3F, 0.0F}) {
    const auto still = envelope_curve(std::vector<float>(66, level), 27.6);
    EXPECT_TRUE(std::isnan(correlation(still, moving)) && std::isnan(correlation(moving, still)));
  }
}

}  // namespace
}  // namespace verdel::internal
