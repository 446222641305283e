#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "signal/levels.hpp"
#include "signal/sequences.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

using Doubles = std::vector<double>;
using ::testing::DoubleNear;
using ::testing::ElementsAre;
using ::testing::Pointwise;

TEST(Sequences, HaveTheirWrittenValues) {
  const Doubles xp{0, 1, 3}, fp{10, 20, 0}, sorted{1, 2, 2, 4};
  const auto at = [&](double x) { return interp(x, xp, fp); };
  const auto place = [&](double x) { return static_cast<double>(searchsorted(sorted, x)); };
  const std::pair<Doubles, Doubles> kCases[] = {
      {linspace(0.0, 1.0, 5), {0.0, 0.25, 0.5, 0.75, 1.0}},
      {linspace(3.0, 7.0, 1), {3.0}},
      {linspace(3.0, 7.0, 0), {}},
      {geomspace(1.0, 16.0, 5), {1.0, 2.0, 4.0, 8.0, 16.0}},
      {{at(-1.0), at(0.5), at(1.0), at(2.0), at(3.0), at(9.0)}, {10.0, 15.0, 20.0, 10.0, 0.0, 0.0}},
      {{place(0.0), place(2.0), place(3.0), place(5.0)}, {0.0, 1.0, 3.0, 4.0}},
      {{round_to_even(2.5), round_to_even(3.5), round_to_even(2.500001)}, {2.0, 4.0, 3.0}},
      {get_window(4), {0.0, 0.5, 1.0, 0.5}},
      {hanning(5), {0.0, 0.5, 1.0, 0.5, 0.0}},
      {hanning(1), {1.0}}};
  for (const auto& [values, expected] : kCases) {
    EXPECT_THAT(values, Pointwise(DoubleNear(2e-15), expected));
  }
  EXPECT_EQ(linspace(0.1, 0.7, 8).back(), 0.7);
  EXPECT_EQ(geomspace(40.0, 22050.0, 128).back(), 22050.0);
  const std::int64_t large = std::int64_t{1} << 60;
  EXPECT_THAT(linspace_floor(-5, 5, 4), ElementsAre(-5, -2, 1, 5));
  EXPECT_THAT(linspace_floor(0, 2, 6), ElementsAre(0, 0, 0, 1, 1, 2));
  EXPECT_THAT(linspace_floor(1, 2 * large + 1, 3), ElementsAre(1, large + 1, 2 * large + 1));
}

// One hot sample against silence, at each place of lengths around the lanes and the blocks.
TEST(Levels, SeeEverySampleAndHideNothingThatIsNoNumber) {
  EXPECT_EQ(levels(AudioView()).peak, -999.0);
  EXPECT_EQ(levels(AudioArray::zeros(2, 100).view()).rms, -999.0);
  for (const std::size_t length : {1u, 15u, 16u, 17u, 4095u, 4097u}) {
    for (std::size_t place = 0; place < 2 * length; place += length < 20 ? 1 : 1361) {
      Array2D<float> audio = Array2D<float>::zeros(2, length);
      audio.flat()[place] = -0.25F;
      EXPECT_DOUBLE_EQ(levels(audio.view()).peak, 20.0 * std::log10(0.25));
      EXPECT_DOUBLE_EQ(levels(audio.view()).rms,
                       10.0 * std::log10(0.0625 / (2.0 * static_cast<double>(length))));
    }
  }
  AudioArray audio = AudioArray::zeros(2, 5000);
  EXPECT_FALSE(first_non_finite(audio.view()));
  audio.row(0)[4999] = std::numeric_limits<double>::infinity();
  EXPECT_EQ(levels(audio.view()).peak, std::numeric_limits<double>::infinity());
  // The first in time, at one time that of the lowest channel.
  for (const auto& [channel, frame] : {std::pair{1u, 4998u}, {0u, 4998u}, {1u, 4096u}, {1u, 17u}}) {
    audio.row(channel)[frame] = std::nan("");
    EXPECT_TRUE(std::isnan(levels(audio.view()).peak) && std::isnan(levels(audio.view()).rms));
    EXPECT_EQ(first_non_finite(audio.view())->channel, channel);
    EXPECT_EQ(first_non_finite(audio.view())->frame, frame);
  }
}

}  // namespace
}  // namespace verdel::internal
