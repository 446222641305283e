#include "contamination/gain.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include "contamination/envelopes.hpp"
#include "signal/moving_average.hpp"

namespace verdel::internal {
namespace {

double product(float stem, float tap) {
  return static_cast<double>(stem) * static_cast<double>(tap);
}
double product(std::complex<float> stem, std::complex<float> tap) {
  return product(stem.real(), tap.real()) + product(stem.imag(), tap.imag());
}

float draw(std::mt19937& random, float) {
  return std::normal_distribution<float>(0, 0.2F)(random);
}
std::complex<float> draw(std::mt19937& random, std::complex<float>) {
  return {draw(random, 0.0F), draw(random, 0.0F)};
}

template <class Sample>
class ContaminationGain : public ::testing::Test {};
using Samples = ::testing::Types<float, std::complex<float>>;
TYPED_TEST_SUITE(ContaminationGain, Samples);

TYPED_TEST(ContaminationGain, IsThatOfAPlainLoop) {
  using Sample = TypeParam;
  const GridWindow window = GridWindow::over_cells(11);
  for (const std::size_t points : {1u, 3u, 40u, 700u}) {
    std::mt19937 random(9);
    std::vector<Sample> tap(points), stem(points);
    for (std::size_t i = 0; i < points; ++i) {
      tap[i] = draw(random, Sample());
      stem[i] = 0.7F * tap[i] + 0.3F * draw(random, Sample());
      if (i > 100) tap[i] *= 0.005F;         // gains above 50
      if (i > 250) tap[i] *= 1e-6F;          // below the floor
      if (i > 400) tap[i] = -3e5F * tap[i];  // opposite phase
    }
    std::vector<double> cross(points), energy(points), cross_mean(points), energy_mean(points);
    for (std::size_t i = 0; i < points; ++i) {
      cross[i] = product(stem[i], tap[i]);
      energy[i] = product(tap[i], tap[i]);
    }
    uniform_filter1d(cross, 11, EdgeMode::kReflect, cross_mean);
    uniform_filter1d(energy, 11, EdgeMode::kReflect, energy_mean);

    // The song as the circle's one part, and at the full rate.
    std::vector<Sample> rest(points + 50), padded_tap(points + 50);
    std::copy(stem.begin(), stem.end(), rest.begin());
    std::copy(tap.begin(), tap.end(), padded_tap.begin());
    const GridExtent extent{.step = 1.0, .length = points + 50, .first = 0, .stop = points};
    ComparisonScratch scratch;
    EXPECT_TRUE(remove_explained(extent, window, padded_tap, rest, scratch));
    for (std::size_t i = 0; i < points; ++i) {
      const double gain = energy_mean[i] > 1e-14 ? cross_mean[i] / energy_mean[i] : 0.0;
      const auto expected = stem[i] - static_cast<float>(std::clamp(gain, 0.0, 50.0)) * tap[i];
      ASSERT_LT(std::abs(rest[i] - expected), 2e-5F) << i << " of " << points;
    }
  }
}

TYPED_TEST(ContaminationGain, EqualSignalsLeaveExactlyNothing) {
  using Sample = TypeParam;
  std::mt19937 random(2);
  std::vector<Sample> tap(900);
  for (auto& x : tap) x = draw(random, Sample());
  // One loud point among quiet ones: it must not spoil the windows that end beside it.
  for (std::size_t i = 300; i < 600; ++i) tap[i] *= 1e-3F;
  tap[450] = Sample(1e3F);
  std::vector<Sample> rest = tap;
  ComparisonScratch scratch;
  const GridExtent extent{.step = 7.3, .length = 6570, .first = 100, .stop = 6100};
  remove_explained(extent, GridWindow::over_samples(21.6), tap, rest, scratch);
  for (std::size_t i = extent.point_begin(); i < extent.point_end(); ++i) {
    ASSERT_EQ(rest[i], Sample()) << i;
  }
  EXPECT_FALSE(remove_explained(extent, GridWindow::over_samples(21.6), std::vector<Sample>(900),
                                rest, scratch));
}

TEST(ContaminationEnvelopes, CellsAreMeanSquaresOfTheMonoSum) {
  auto audio = AudioArray::zeros(2, 1041);
  for (std::size_t i = 0; i < 1041; ++i) {
    audio.row(0)[i] = 0.5 + static_cast<double>(i % 3);
    audio.row(1)[i] = i < 1024 ? -0.5 : 0.5;
  }
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
}

TEST(ContaminationEnvelopes, WhatDoesNotMoveResemblesNothing) {
  std::vector<float> ramp(500);
  std::iota(ramp.begin(), ramp.end(), 0.0F);
  const auto curve = [](const std::vector<float>& cells) { return envelope_curve(cells, 27.6); };
  EXPECT_NEAR(correlation(curve(ramp), curve(ramp)), 1.0, 1e-9);
  for (const float level : {0.3F, 0.0F}) {
    const auto still = curve(std::vector<float>(500, level));
    EXPECT_TRUE(std::isnan(correlation(still, curve(ramp))));
    EXPECT_TRUE(std::isnan(correlation(curve(ramp), still)));
  }
}

}  // namespace
}  // namespace verdel::internal
