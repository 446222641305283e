#include "alignment/lag_search.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>

#include "alignment/tap_alignment.hpp"
#include "support/noise.hpp"

namespace verdel::internal {
namespace {

using Samples = std::span<double>;

constexpr int kRate = 4000;
constexpr std::size_t kSection = 30000;  // 7.5 s, a quarter of a case's 30 s
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

void scale(Samples signal, double gain) {
  for (double& sample : signal) sample *= gain;
}
void turn(Samples signal) {
  std::rotate(signal.begin(), signal.begin() + 50, signal.end());
}
void scale_all_but_the_third_section(Samples signal, double gain) {
  scale(signal.first(2 * kSection), gain);
  scale(signal.last(kSection), gain);
}

// A source and its copy `lag` samples later, both changed afterwards.
struct LagCase {
  const char* name;
  std::ptrdiff_t lag, expected;
  std::function<void(Samples late, Samples source)> change = [](Samples, Samples) {};
  std::size_t length = 4 * kSection;
};

TEST(FindLag, IsThatOfTheCopyOrNone) {
  const LagCase kCases[] = {
      {"late", 100, 100},
      {"early", -100, -100},
      {"inverted", 100, 100, [](Samples late, Samples) { scale(late, -1.0); }},
      {"two samples", -2, 0},
      {"three samples", -3, -3},
      {"the whole range", 800, 800},
      {"beyond the range", 801, 0},
      {"two sections", 100, 100, {[](Samples, Samples) {}}, 40000},
      {"one sample less than two sections", 100, 0, {[](Samples, Samples) {}}, 39999},
      {"below hearing", 100, 0, [](Samples, Samples source) { scale(source, 1e-9); }},
      {"sounds in one section", 100, 0,  // the others 41 dB below the third
       [](Samples, Samples source) { scale_all_but_the_third_section(source, 0.0065); }},
      {"sounds in all sections", 100, 100,  // 39 dB below
       [](Samples, Samples source) { scale_all_but_the_third_section(source, 0.017); }},
      {"one section of four disagrees", 100, 100,
       [](Samples late, Samples) { turn(late.first(kSection)); }},
      {"two sections of four disagree", 100, 0,
       [](Samples late, Samples) {
         turn(late.first(kSection));
         turn(late.last(kSection));
       }},
      {"source has one NaN", 100, 0, [](Samples, Samples source) { source[5] = kNaN; }},
      {"copy is all infinite", 100, 0, [](Samples late, Samples) { scale(late, kInfinity); }},
  };
  for (const LagCase& c : kCases) {
    AudioArray source = testing::noise_array(1, c.length, 1);
    // The third section is the loudest, so that the search of the whole looks there.
    if (c.length == 4 * kSection) scale(source.flat().subspan(2 * kSection, kSection), 1.5);
    AudioArray late = align_tap(source.view(), c.lag);
    c.change(late.flat(), source.flat());
    EXPECT_EQ(find_lag(late.flat(), source.flat(), kRate), c.expected) << c.name;
  }
}

// The definition without transforms.
std::ptrdiff_t plain_lag(std::span<const double> a, std::span<const double> b,
                         std::ptrdiff_t range) {
  std::ptrdiff_t best = 0;
  double highest = -1.0, at_zero = 0.0;
  for (std::ptrdiff_t lag = -range; lag <= range; ++lag) {
    const auto shift = static_cast<std::size_t>(std::abs(lag));
    double sum = 0.0;
    for (std::size_t i = 0; i + shift < a.size(); ++i) {
      sum += lag < 0 ? a[i] * b[i + shift] : a[i + shift] * b[i];
    }
    if (lag == 0) at_zero = std::abs(sum);
    if (std::abs(sum) > highest) best = lag;
    highest = std::max(highest, std::abs(sum));
  }
  return highest > at_zero * 1.02 ? best : 0;
}

// The highest correlation of unrelated noise stands anywhere, at a level that any slip would
// change.
TEST(FindLagWindow, EqualsThePlainSums) {
  struct Sizes {
    int sr;
    std::size_t length;
    double max_ms;
    std::ptrdiff_t range;
  };
  for (const auto& [sr, length, max_ms, range] :
       {Sizes{1000, 1024, 200.0, 200}, Sizes{5000, 16001, 600.1, 3000},
        Sizes{1000, 1999, 1e9, 1998}, Sizes{1000, 1023, 200.0, 0}, Sizes{1000, 5000, -3.0, 0},
        Sizes{1000, 5000, kNaN, 0}}) {
    for (unsigned seed = 1; seed <= 2; ++seed) {
      const auto a = testing::noise(length, seed), b = testing::noise(length, seed + 100);
      EXPECT_EQ(_find_lag_window(a, b, sr, max_ms), plain_lag(a, b, range))
          << sr << " Hz, length " << length << ", seed " << seed;
    }
  }
  // A lag must beat lag 0 by 2 percent.
  std::vector<double> a(2000), b(2000);
  b[1000] = a[1000] = 1.0;
  for (const double second : {1.019, 1.021}) {
    a[950] = second;
    EXPECT_EQ(_find_lag_window(a, b, 1000), second > 1.02 ? -50 : 0);
  }
}

}  // namespace
}  // namespace verdel::internal
