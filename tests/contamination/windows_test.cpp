#include "contamination/windows.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <numeric>
#include <random>

namespace verdel::internal {
namespace {

// The window's sum around every point of a signal given at any place, value by value.
template <class Signal>
void expect_plain_sums(const GridWindow& window, std::size_t count, Signal signal) {
  std::vector<float> padded(count + 2 * window.padding()), whole(count), ends(count);
  const auto padding = static_cast<std::ptrdiff_t>(window.padding());
  for (std::size_t i = 0; i < padded.size(); ++i) {
    padded[i] = signal(static_cast<std::ptrdiff_t>(i) - padding);
  }
  std::vector<double> scratch;
  window_sums(padded, window, scratch, whole, ends);
  const auto reach = static_cast<std::ptrdiff_t>(window.reach);
  for (std::size_t i = 0; i < count; ++i) {
    const auto at = [&](std::ptrdiff_t offset) {
      return static_cast<double>(signal(static_cast<std::ptrdiff_t>(i) + offset));
    };
    double inner = 0.0, outer = 0.0;
    for (std::ptrdiff_t k = -reach; k <= reach; ++k) inner += at(k);
    for (std::size_t k = 0; k < window.ends.size(); ++k) {
      const std::ptrdiff_t offset = reach + 1 + static_cast<std::ptrdiff_t>(k);
      outer += window.ends[k] * (at(offset) + at(-offset));
    }
    // Rounded to single precision from sums of values of at most 1.
    ASSERT_NEAR(whole[i], inner, 1e-7 * (1 + window.width)) << i;
    ASSERT_NEAR(ends[i], outer, 1e-6) << i;
  }
}

TEST(ContaminationWindows, SumsAreThoseOfAPlainLoop) {
  std::mt19937 random(3);
  std::uniform_real_distribution<float> value(-1, 1);
  std::vector<float> signal(6000);
  for (float& x : signal) x = value(random);
  const auto noise = [&](std::ptrdiff_t i) { return signal[static_cast<std::size_t>(i + 2000)]; };
  for (const double width : {1.0, 1.5, 3.0, 8.2, 17.0, 31.9, 33.0, 64.4, 1000.5, 2205.0}) {
    for (const std::size_t count : {1u, 7u, 511u, 512u, 513u, 1500u}) {
      expect_plain_sums(GridWindow::over_cells(width), count, noise);
      if (width >= 4) expect_plain_sums(GridWindow::over_samples(width), count, noise);
    }
  }
}

TEST(ContaminationWindows, SilenceAfterSoundIsExactlySilent) {
  const auto burst = [](std::ptrdiff_t i) { return i < 100 ? 0.7F : 0.0F; };
  for (const GridWindow& window : {GridWindow::over_cells(50.3), GridWindow::over_samples(50.3)}) {
    std::vector<float> padded(600 + 2 * window.padding()), whole(600), ends(600);
    for (std::size_t i = 0; i < padded.size(); ++i) padded[i] = burst(static_cast<int>(i));
    std::vector<double> scratch;
    window_sums(padded, window, scratch, whole, ends);
    for (std::size_t i = 100; i < 600; ++i) ASSERT_EQ(whole[i] + ends[i], 0.0F) << i;
  }
}

TEST(ContaminationWindows, WeightsHaveTheWidth) {
  for (const double width : {4.0, 5.7, 16.5, 24.99, 111.3}) {
    for (const GridWindow& window :
         {GridWindow::over_cells(width), GridWindow::over_samples(width)}) {
      const double ends = std::accumulate(window.ends.begin(), window.ends.end(), 0.0);
      EXPECT_NEAR(2 * static_cast<double>(window.reach) + 1 + 2 * ends, width, 1e-12);
    }
  }
}

TEST(ContaminationWindows, SamplesGiveTheIntegralBetweenThem) {
  // A cosine around 0, whose integral over a window of any width is known; the error of a cubic
  // grows with the fourth power of the frequency.
  for (const double frequency : {0.0, 0.02, 0.1}) {
    const double omega = 2 * std::numbers::pi * frequency;
    for (double width = 10.0; width < 14.0; width += 0.17) {
      const GridWindow window = GridWindow::over_samples(width);
      double sum = 0.0;
      for (std::size_t k = 0; k < window.padding() + 1; ++k) {
        const double weight = k <= window.reach ? 1.0 : window.ends[k - window.reach - 1];
        sum += (k == 0 ? 1.0 : 2.0) * weight * std::cos(omega * static_cast<double>(k));
      }
      const double integral = omega == 0.0 ? width : 2 / omega * std::sin(omega * width / 2);
      EXPECT_NEAR(sum, integral, 1e-12 + 0.5 * std::pow(omega, 4)) << frequency << " " << width;
    }
  }
}

}  // namespace
}  // namespace verdel::internal
