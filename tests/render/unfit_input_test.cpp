#include "render/unfit_input.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "support/noise.hpp"

namespace verdel::internal {
namespace {

TEST(UnfitInput, CountsFromWhereTheTapBeganBeforeItWasMoved) {
  const AudioArray mix = testing::noise_array(2, 100, 1);
  StemMap taps;
  taps.push_back({"Fine", testing::noise_array(2, 100, 2)});
  taps.push_back({"Moved", testing::noise_array(2, 100, 3)});
  EXPECT_FALSE(unfit_input(mix.view(), taps, {}));
  taps[1].audio.row(1)[50] = NAN;
  for (const std::ptrdiff_t lag : {20, -20}) {
    const auto unfit = unfit_input(mix.view(), taps, {{"Fine", 7}, {"Moved", lag}});
    ASSERT_TRUE(unfit);
    EXPECT_EQ(unfit->tap, 1U);
    EXPECT_THAT(
        unfit_text(*unfit, 2, unfit->channel),
        ::testing::StartsWith(lag > 0 ? "sample 30 of channel 1" : "sample 70 of channel 1"));
  }
}

}  // namespace
}  // namespace verdel::internal
