#include "contamination/bands.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include "contamination/slices.hpp"
#include "gain/band_masks.hpp"

namespace verdel::internal {
namespace {

using Bins = std::vector<std::complex<float>>;

std::size_t spectrum_size(const ReportBand& band) {
  return band.complex() ? band.points : band.points / 2 + 1;
}

// What a band's inverse transform and the forward one back do to its spectrum.
void there_and_back(const ReportBand& band, Bins& bins) {
  for (auto& bin : bins) bin *= static_cast<float>(band.points);
}

TEST(ContaminationBands, TakenAndAddedBandsAreTheMaskedSpectrum) {
  for (const int sr : {22050, 44100, 96000}) {
    for (const std::size_t n_bands : {2u, 5u, 32u, 128u}) {
      const std::size_t length = 1 << 17;
      const BandLayout layout = lay_out_bands(length, sr, n_bands, n_bands == 5);
      const StreamedBandMasks masks(length, sr, n_bands);
      std::mt19937 random(5);
      std::uniform_real_distribution<float> value(-1, 1);
      Bins spectrum(layout.bins()), sum(layout.bins());
      for (auto& bin : spectrum) bin = {value(random), value(random)};
      ASSERT_EQ(layout.bands.size(), n_bands);
      for (std::size_t k = 0; k < n_bands; ++k) {
        const ReportBand& band = layout.bands[k];
        Bins taken(spectrum_size(band)), alone(layout.bins());
        take_band(layout, band, spectrum, taken);
        there_and_back(band, taken);
        add_band(layout, band, taken, alone);
        const std::vector<double> mask = masks[k];
        for (std::size_t i = 0; i < alone.size(); ++i) {
          const auto expected = static_cast<float>(mask[i]) * spectrum[i];
          ASSERT_LT(std::abs(static_cast<float>(length) * alone[i] - expected), 2e-6F)
              << sr << " Hz, band " << k << " of " << n_bands << ", bin " << i;
          sum[i] += alone[i];
        }
      }
      for (std::size_t i = 0; i < sum.size(); ++i) {
        ASSERT_LT(std::abs(static_cast<float>(length) * sum[i] - spectrum[i]), 2e-6F) << i;
      }
    }
  }
}

TEST(ContaminationSlices, CoresTileTheSongAndSlicesHoldTheirContext) {
  struct Case {
    std::size_t frames;
    int sr;
    std::size_t nfft;
  };
  for (const auto& [frames, sr, nfft] :
       {Case{1, 44100, 2}, Case{66149, 44100, 1 << 24}, Case{66150, 44100, 1 << 24},
        Case{130000, 44100, 1 << 17}, Case{600000, 44100, 1 << 20}, Case{2646001, 44100, 1 << 22},
        Case{28800000, 96000, 1 << 25}, Case{10000019, 22050, 1 << 24},
        Case{280000, 50000, 1 << 19}, Case{300000, 44100, 1 << 19},
        Case{2000000, 192000, 1 << 21}}) {
    const SlicePlan plan = plan_slices(frames, sr, nfft);
    std::size_t covered = 0;
    for (std::size_t k = 0; k < plan.count; ++k) {
      ASSERT_EQ(plan.core_begin(k), covered);
      ASSERT_EQ(plan.core_begin(k) % plan.cell, 0u);
      ASSERT_GT(plan.core_frames(k), 0u);
      covered += plan.core_frames(k);
      const SlicePlan::Extent extent = plan.extent(k);
      ASSERT_LE(extent.stop, plan.length);
      // The core's first sample stands behind the context, and all of the core is there.
      ASSERT_EQ(extent.song_first + (plan.context - extent.first), plan.core_begin(k));
      ASSERT_GE(extent.stop, plan.context + plan.core_frames(k));
      // Context on both sides as far as there is song, and silence between its end and its
      // beginning, where the circle closes.
      ASSERT_TRUE(k == 0 || extent.first == 0);
      const bool to_the_end = extent.song_first + extent.frames() == frames;
      ASSERT_EQ(to_the_end, k + 1 == plan.count);
      ASSERT_TRUE(!to_the_end || plan.full_rate || plan.length - extent.stop >= plan.context);
    }
    EXPECT_EQ(covered, frames);
    EXPECT_LE(plan.length, nfft) << "no clip pays for more than its own transform";
  }
}

TEST(ContaminationSlices, TransformLengthsAreSmallAndFactorised) {
  for (std::size_t least = 1; least < 5000; ++least) {
    const std::size_t length = good_transform_length(least);
    ASSERT_GE(length, std::max<std::size_t>(least, 2));
    ASSERT_TRUE(least < 40 || 3 * length <= 4 * least) << least;
    std::size_t rest = length;
    for (const std::size_t factor : {2u, 3u, 5u}) {
      while (rest % factor == 0) rest /= factor;
    }
    ASSERT_EQ(rest, 1u);
    ASSERT_EQ(length % 2, 0u);
  }
}

}  // namespace
}  // namespace verdel::internal
