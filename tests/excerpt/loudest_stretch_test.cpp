#include "excerpt/loudest_stretch.hpp"

#include <gtest/gtest.h>

#include <vector>

#include "signal/moving_average.hpp"

namespace verdel::internal {
namespace {

// Whole numbers: the sums are exact, so that the first of equal stretches is the same one.
TEST(LoudestStretch, EqualsThePlainSums) {
  for (const std::size_t n : {2u, 3u, 50u, 199u}) {
    auto mix = AudioArray::zeros(2, n);
    for (std::size_t i = 0; i < 2 * n; ++i) mix.flat()[i] = static_cast<double>(i * i % 37) - 15.0;
    for (const std::size_t smoothing : {1u, 3u, 8u, 500u}) {
      std::vector<double> energy(n);
      for (std::size_t i = 0; i < n * smoothing; ++i) {
        const auto place = static_cast<std::ptrdiff_t>(i / smoothing + i % smoothing) -
                           static_cast<std::ptrdiff_t>(smoothing / 2);
        const std::size_t at = edge_index(place, n, EdgeMode::kReflect);
        const double mono = (mix.row(0)[at] + mix.row(1)[at]) / 2.0;
        energy[i / smoothing] += mono * mono;
      }
      for (const std::size_t length : {std::size_t{1}, n / 3 + 1, n - 1}) {
        std::size_t best = 0;
        double highest = -1.0;
        for (std::size_t s = 0; s + length <= n; ++s) {
          double sum = 0.0;
          for (std::size_t i = s; i < s + length; ++i) sum += energy[i];
          if (sum > highest) best = s;
          highest = std::max(highest, sum);
        }
        EXPECT_EQ(loudest_stretch(mix.view(), length, smoothing), best)
            << n << " samples, length " << length << ", smoothing " << smoothing;
      }
    }
  }
}

}  // namespace
}  // namespace verdel::internal
