#include "inputs/levels.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>

namespace verdel {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(Levels, KnowsSilenceSquareAndSine) {
  EXPECT_EQ(levels(AudioView()).peak, -999.0);
  EXPECT_EQ(levels(AudioArray::zeros(2, 100).view()).rms, -999.0);

  AudioArray square = AudioArray::uninitialised(2, 10001);
  AudioArray sine = AudioArray::uninitialised(2, 48000);
  for (std::size_t i = 0; i < square.size(); ++i) square.flat()[i] = i % 2 == 0 ? 1.0 : -1.0;
  for (std::size_t i = 0; i < sine.size(); ++i) {
    sine.flat()[i] = 0.5 * std::sin(2.0 * std::numbers::pi * static_cast<double>(i) / 480.0);
  }
  EXPECT_EQ(levels(square.view()).peak, 0.0);
  EXPECT_EQ(levels(square.view()).rms, 0.0);
  EXPECT_NEAR(levels(sine.view()).peak, 20.0 * std::log10(0.5), 1e-12);
  EXPECT_NEAR(levels(sine.view()).rms, 10.0 * std::log10(0.125), 1e-12);
}

TEST(Levels, SeesEverySampleOfEveryLength) {
  // One hot sample against silence, at each place of lengths around the lanes and the blocks.
  for (const std::size_t length : {1u, 15u, 16u, 17u, 4095u, 4097u}) {
    for (std::size_t place = 0; place < 2 * length; place += length < 20 ? 1 : 1361) {
      Array2D<float> audio = Array2D<float>::zeros(2, length);
      audio.flat()[place] = -0.25F;
      const Levels found = levels(audio.view());
      EXPECT_DOUBLE_EQ(found.peak, 20.0 * std::log10(0.25));
      EXPECT_DOUBLE_EQ(found.rms,
                       20.0 * std::log10(0.25 / std::sqrt(2.0 * static_cast<double>(length))));
    }
  }
}

TEST(Levels, HidesNothingThatIsNoNumber) {
  AudioArray audio = AudioArray::zeros(2, 5000);
  EXPECT_FALSE(first_non_finite(audio.view()));
  audio.row(0)[4999] = kInfinity;
  EXPECT_EQ(levels(audio.view()).peak, kInfinity);
  audio.row(1)[4998] = kNan;
  EXPECT_TRUE(std::isnan(levels(audio.view()).peak));
  EXPECT_TRUE(std::isnan(levels(audio.view()).rms));

  const auto expect_first = [&](std::size_t channel, std::size_t frame) {
    const auto bad = first_non_finite(audio.view());
    ASSERT_TRUE(bad);
    EXPECT_EQ(bad->channel, channel);
    EXPECT_EQ(bad->frame, frame);
  };
  expect_first(1, 4998);
  audio.row(0)[4998] = -kInfinity;
  expect_first(0, 4998);
  audio.row(1)[17] = kNan;
  expect_first(1, 17);
}

}  // namespace
}  // namespace verdel
