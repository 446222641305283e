#include "signal/levels.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numbers>
#include <utility>

namespace verdel::internal {
namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(Levels, KnowsSilenceAndASine) {
  EXPECT_EQ(levels(AudioView()).peak, -999.0);
  EXPECT_EQ(levels(AudioArray::zeros(2, 100).view()).rms, -999.0);
  AudioArray sine = AudioArray::uninitialised(2, 48000);
  for (std::size_t i = 0; i < sine.size(); ++i) {
    sine.flat()[i] = 0.5 * std::sin(2.0 * std::numbers::pi * static_cast<double>(i) / 480.0);
  }
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
  // The first in time, at one time that of the lowest channel.
  for (const auto& [channel, frame] : {std::pair{1u, 4998u}, {0u, 4998u}, {1u, 17u}}) {
    audio.row(channel)[frame] = kNan;
    EXPECT_TRUE(std::isnan(levels(audio.view()).peak));
    EXPECT_TRUE(std::isnan(levels(audio.view()).rms));
    EXPECT_EQ(first_non_finite(audio.view())->channel, channel);
    EXPECT_EQ(first_non_finite(audio.view())->frame, frame);
  }
}

}  // namespace
}  // namespace verdel::internal
