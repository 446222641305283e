#include "handover/integer_stems.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace verdel::internal {
namespace {

using Rows = std::vector<std::vector<double>>;

/// What comes of some stems, and the mix's integers beside it.
struct Rounded {
  std::vector<std::vector<std::int32_t>> stems;
  std::vector<StemRounding> tallies;
  std::optional<MissedSample> missed;
};

Rounded round(const Rows& stems, const std::vector<std::int32_t>& target, IntegerGrid grid) {
  Rounded done{std::vector(stems.size(), std::vector<std::int32_t>(target.size())),
               std::vector<StemRounding>(stems.size()),
               {}};
  RoundingBlock block{
      .channel = 1, .first = 1000, .target = target, .stems = {}, .rounded = {}, .grid = grid};
  for (const auto& stem : stems) block.stems.emplace_back(stem);
  for (auto& stem : done.stems) block.rounded.emplace_back(stem);
  done.missed = round_together(block, done.tallies);
  return done;
}

/// Noise of a peak; every third stem rests in the first half.
Rows noise(std::size_t stems, std::size_t frames, double peak) {
  std::mt19937 random(7);
  std::uniform_real_distribution<double> value(-peak, peak);
  Rows rows(stems, std::vector<double>(frames));
  for (std::size_t s = 0; s < stems; ++s) {
    for (std::size_t i = s % 3 == 2 ? frames / 2 : 0; i < frames; ++i) rows[s][i] = value(random);
  }
  return rows;
}

std::vector<double> sum_of(const Rows& stems) {
  std::vector<double> sum(stems.front().size());
  for (const auto& stem : stems) {
    for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += stem[i];
  }
  return sum;
}

TEST(IntegerStems, SumToTheMixWithinTheirBounds) {
  constexpr std::size_t kFrames = 5000;
  for (const std::size_t stems : {1U, 2U, 3U, 8U, 33U, 128U}) {
    for (const int bits : {16, 24}) {
      for (const double missing : {0.0, 0.84, -1.4}) {  // steps that the stems miss the mix by
        SCOPED_TRACE(::testing::Message() << stems << " " << bits << " " << missing);
        const IntegerGrid grid{bits};
        const Rows rows = noise(stems, kFrames, 0.9 / static_cast<double>(stems));
        auto mix = sum_of(rows);
        for (double& x : mix) x += missing / grid.steps();
        std::vector<std::int32_t> target(kFrames);
        MixRounding mix_rounding;
        round_mix(mix, grid, 0, 0, target, mix_rounding);
        EXPECT_LE(mix_rounding.changed.largest, 0.5);
        const Rounded done = round(rows, target, grid);
        ASSERT_FALSE(done.missed);
        for (std::size_t s = 0; s < stems; ++s) {
          std::int32_t largest = 0;
          double squares = 0.0;
          for (std::size_t i = 0; i < kFrames; ++i) {
            const double value = rows[s][i] * grid.steps();
            const std::int32_t got = done.stems[s][i];
            const auto departure = static_cast<std::int32_t>(std::abs(got - std::nearbyint(value)));
            largest = std::max(largest, departure);
            squares += departure * departure;
            EXPECT_TRUE(got == 0 || value != 0.0 || missing != 0.0 || stems == 1) << i;
          }
          EXPECT_EQ(done.tallies[s].largest_departure, largest);
          EXPECT_EQ(done.tallies[s].squares, squares);
          EXPECT_LE(largest, stems < 4 && std::abs(missing) > 1.0 ? 2 : 1);
        }
        for (std::size_t i = 0; i < kFrames; ++i) {
          std::int64_t sum = 0;
          for (const auto& stem : done.stems) sum += stem[i];
          ASSERT_EQ(sum, target[i]) << i;
        }
      }
    }
  }
}

TEST(IntegerStems, WhatAStemCannotHoldGoesToTheLoudestThatCan) {
  const IntegerGrid grid{16};
  // The first is over at two samples, the second at one. The first is the loudest, then the third.
  Rows rows = {{1.25, 0.5, -1.5, 0.0}, {-0.25, 0.0, 1.2, 0.0}, {0.0, -0.9, 0.1, 0.9}};
  const auto sum = sum_of(rows);
  std::vector<std::int32_t> target(sum.size());
  MixRounding ignored;
  round_mix(sum, grid, 0, 0, target, ignored);
  const Rounded done = round(rows, target, grid);
  ASSERT_FALSE(done.missed);
  for (std::size_t i = 0; i < target.size(); ++i) {
    std::int64_t total = 0;
    for (const auto& stem : done.stems) {
      EXPECT_TRUE(stem[i] >= grid.lowest() && stem[i] <= grid.highest());
      total += stem[i];
    }
    EXPECT_EQ(total, target[i]);
  }
  EXPECT_EQ(done.tallies[0].relieved.samples, 2U);
  EXPECT_EQ(done.tallies[0].relieved.frame, 1000U);
  EXPECT_EQ(done.tallies[0].relieved.channel, 1U);
  EXPECT_EQ(done.tallies[0].relieved.largest, 16384.0);  // 0.5
  EXPECT_EQ(done.tallies[1].relieved.samples, 1U);
  EXPECT_EQ(done.tallies[0].took.samples, 1U);
  EXPECT_EQ(done.tallies[1].took.samples, 0U);
  EXPECT_EQ(done.tallies[2].took.samples, 2U);
}

TEST(IntegerStems, StemsThatMissTheMixAreToldWithTheirSample) {
  const double infinite = std::numeric_limits<double>::infinity();
  const double step = 1.0 / IntegerGrid{24}.steps();
  for (const auto& [left, right, steps] : {std::tuple{0.25 + 3.0 * step, 0.25, -3.0},
                                           {0.25, 0.25 - 2.5 * step, 2.5},
                                           {std::nan(""), 0.25, infinite},
                                           {infinite, -infinite, infinite},
                                           {1e9, -1e9, infinite}}) {
    const Rows rows = {{0.25, left, 0.0}, {0.25, right, 0.0}};
    const Rounded done = round(rows, {1 << 22, 1 << 22, 0}, {24});
    ASSERT_TRUE(done.missed);
    EXPECT_EQ(done.missed->frame, 1001U);
    EXPECT_NEAR(done.missed->steps == steps ? 0.0 : done.missed->steps - steps, 0.0, 1e-6);
  }
}

TEST(IntegerStems, AMixIsRoundedToTheNearestAndWhatIsBeyondIsCounted) {
  const double step = 1.0 / 32768.0;
  const std::vector<double> mix = {1.0,         -1.0,       0.5 * step, 1.5 * step,
                                   -0.4 * step, 1.0 + step, -2.0,       std::nan("")};
  std::vector<std::int32_t> rounded(mix.size());
  MixRounding tally;
  round_mix(mix, {16}, 1, 50, rounded, tally);
  EXPECT_EQ(rounded, (std::vector<std::int32_t>{32767, -32768, 0, 2, 0, 32767, -32768, 0}));
  EXPECT_EQ(tally.changed.samples, 4U);
  EXPECT_EQ(tally.changed.largest, 1.0);
  EXPECT_EQ(tally.beyond.samples, 3U);
  EXPECT_EQ(tally.beyond.frame, 55U);
  EXPECT_TRUE(std::isnan(tally.beyond.largest));
}

}  // namespace
}  // namespace verdel::internal
