#include "signal/sequences.hpp"

#include <gtest/gtest.h>

#include <utility>

namespace verdel::internal {
namespace {

using Doubles = std::vector<double>;

TEST(Sequences, SpacedValuesMeetBothEnds) {
  EXPECT_EQ(linspace(0.0, 1.0, 5), (Doubles{0.0, 0.25, 0.5, 0.75, 1.0}));
  EXPECT_EQ(linspace(3.0, 7.0, 1), (Doubles{3.0}));
  EXPECT_TRUE(linspace(3.0, 7.0, 0).empty());
  EXPECT_EQ(linspace(0.1, 0.7, 8).back(), 0.7);

  const auto octaves = geomspace(40.0, 22050.0, 128);
  EXPECT_EQ(octaves.front(), 40.0);
  EXPECT_EQ(octaves.back(), 22050.0);
  for (std::size_t i = 1; i + 1 < octaves.size(); ++i) {
    EXPECT_NEAR(octaves[i] * octaves[i] / (octaves[i - 1] * octaves[i + 1]), 1.0, 1e-13);
  }
}

TEST(Sequences, WholeBoundsAreFloored) {
  using Whole = std::vector<std::int64_t>;
  EXPECT_EQ(linspace_floor(0, 10, 4), (Whole{0, 3, 6, 10}));
  EXPECT_EQ(linspace_floor(-5, 5, 4), (Whole{-5, -2, 1, 5}));
  EXPECT_EQ(linspace_floor(7, 7, 3), (Whole{7, 7, 7}));
  EXPECT_EQ(linspace_floor(0, 2, 6), (Whole{0, 0, 0, 1, 1, 2}));
  EXPECT_EQ(linspace_floor(1, (std::int64_t{1} << 61) + 1, 3),
            (Whole{1, (std::int64_t{1} << 60) + 1, (std::int64_t{1} << 61) + 1}));
}

TEST(Sequences, TablesAreReadBetweenAndBeyondTheirPoints) {
  const Doubles xp{0.0, 1.0, 3.0}, fp{10.0, 20.0, 0.0};
  for (const auto& [x, value] :
       {std::pair{-1.0, 10.0}, {0.5, 15.0}, {1.0, 20.0}, {2.0, 10.0}, {3.0, 0.0}, {9.0, 0.0}}) {
    EXPECT_EQ(interp(x, xp, fp), value) << x;
  }
  const Doubles sorted{1.0, 2.0, 2.0, 4.0};
  for (const auto& [x, place] : {std::pair{0.0, 0u}, {2.0, 1u}, {3.0, 3u}, {5.0, 4u}}) {
    EXPECT_EQ(searchsorted(sorted, x), place) << x;
  }
}

TEST(Sequences, HalvesRoundToTheEvenNumber) {
  for (const auto& [x, whole] : {std::pair{2.5, 2.0}, {3.5, 4.0}, {-0.5, 0.0}, {2.500001, 3.0}}) {
    EXPECT_EQ(round_to_even(x), whole) << x;
  }
}

}  // namespace
}  // namespace verdel::internal
