#include "delivery/coordinated_float32.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "support/errors.hpp"
#include "support/files.hpp"

namespace verdel::internal {
namespace {

constexpr double kFails = std::numeric_limits<double>::quiet_NaN();

// Two stems' samples, the mix's, and what is delivered; not a number where nothing can be.
struct Case {
  const char* what;
  double stems[2], mix, threshold, delivered[2];
};

// Each case stands at the edges of the blocks that are worked on, in the last of three channels
// and in the first; silence is between, and the last stem in the block before.
TEST(CoordinatedFloat32, GivesTheRoundingToTheLoudestStem) {
  const auto rounded = [](double value) { return static_cast<double>(static_cast<float>(value)); };
  const double owner = rounded(rounded(0.2) + (0.1 + 0.2 - (rounded(0.1) + rounded(0.2))));
  const std::pair<std::size_t, std::size_t> kPlaces[] = {{2, 0}, {0, 4095}, {2, 4096}, {2, 8999}};
  const Case kCases[] = {
      {"rounding of both", {0.1, 0.2}, 0.1 + 0.2, -300, {rounded(0.1), owner}},
      {"just above -140 dB", {0.25, 0.0}, 0.5, -139.99, {0.25, 0.0}},
      {"below the target", {0.0, 0.0}, std::nextafter(1e-7, 0.0), -140, {0.0, 0.0}},
      {"at the target", {0.0, 0.0}, 1e-7, -140, {rounded(1e-7), 0.0}},
      {"below a deeper target", {0.0, 0.5}, 0.5 + 0x1p-26, -150, {0.0, 0.5}},
      {"the louder, negative", {0.25, -0.5}, -0.25 + 0x1p-22, -140, {0.25, -0.5 + 0x1p-22}},
      {"the first of equal ones", {-0.5, 0.5}, 0x1p-21, -140, {-0.5 + 0x1p-21, 0.5}},
      {"at the bound of a low mix", {0.5, 0.0}, 0.5 + 0x1p-20, -140, {0.5 + 0x1p-20, 0.0}},
      {"above the bound of a low mix", {0.5, 0.0}, 0.5 + 0x1p-20 + 0x1p-24, -140, {kFails, 0.0}},
      {"at the bound of a loud mix", {-4.0, 0.0}, -4.0 - 0x1p-18, -140, {-4.0 - 0x1p-18, 0.0}},
      {"above the bound of a loud mix", {4.0, 0.0}, 4.0 + 0x1p-17, -140, {kFails, 0.0}},
      {"not a number", {0.5, kFails}, 0.5, -140, {kFails, 0.0}},
      {"too large for a float", {1e39, 0.0}, 1e39, -140, {kFails, 0.0}}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    auto mix = AudioArray::zeros(3, 9000);
    // By channel, as they are handed over.
    std::vector<AudioArray> stems;
    StemMap expected;
    for (std::size_t channel = 0; channel < 3; ++channel) {
      stems.push_back(AudioArray::zeros(2, 9000));
    }
    for (const std::size_t i : {0U, 1U}) {
      expected.push_back({i == 0 ? "a" : "b", StemArray::zeros(3, 9000)});
      for (const auto& [channel, sample] : kPlaces) {
        mix.row(channel)[sample] = c.mix;
        stems[channel].row(i)[sample] = c.stems[i];
        expected[i].audio.row(channel)[sample] = static_cast<float>(c.delivered[i]);
      }
    }
    stems[1].row(1)[8192] = mix.row(1)[8192] = 0.5;
    expected[1].audio.row(1)[8192] = 0.5F;
    for (const std::size_t piece : {9000U, 4000U}) {
      const std::string failure = testing::failure_of<RuntimeError>([&] {
        CoordinatedStems rounding({"a", "b"}, mix.view(), c.threshold);
        // What needs no coordination comes before the first sample that does, and after it.
        for (const std::size_t channel : {1U, 0U, 2U}) {
          for (std::size_t first = 0; first < 9000; first += piece) {
            const std::size_t stop = std::min<std::size_t>(first + piece, 9000);
            rounding.take(channel, first, stems[channel].view().column_range(first, stop));
          }
        }
        const auto done = rounding.finish();
        ASSERT_EQ(done.size(), 2U);
        for (const std::size_t i : {0U, 1U}) {
          EXPECT_EQ(done[i].name, expected[i].name);
          EXPECT_TRUE(std::ranges::equal(done[i].audio.flat(), expected[i].audio.flat())) << i;
        }
      });
      EXPECT_EQ(failure, std::isnan(c.delivered[0])
                             ? "coordinated FLOAT32 delivery exceeded its rounding-only bound"
                             : "");
    }
  }
  EXPECT_THROW(CoordinatedStems(std::vector<std::string>(65537), {}, -140.0), ValueError);
}

}  // namespace
}  // namespace verdel::internal
