#pragma once

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

#include "signal/arrays.hpp"

/// Faults as sessions make them, put into taps.
namespace verdel::internal::testing {

inline void scale(StemArray& tap, std::size_t channel, double factor) {
  for (float& x : tap.row(channel)) x *= static_cast<float>(factor);
}

/// The tap read at other places, which need not be whole, through a sinc of 64 samples under a
/// raised cosine.
template <class Place>
StemArray read_at(const StemArray& tap, Place place) {
  constexpr std::ptrdiff_t kHalf = 32;
  auto moved = StemArray::zeros(tap.rows(), tap.columns());
  const auto frames = static_cast<std::ptrdiff_t>(tap.columns());
  for (std::ptrdiff_t i = 0; i < frames; ++i) {
    const double at = place(static_cast<double>(i));
    const auto whole = static_cast<std::ptrdiff_t>(std::floor(at));
    std::vector<double> sums(tap.rows());
    for (std::ptrdiff_t j = whole - kHalf + 1; j <= whole + kHalf; ++j) {
      if (j < 0 || j >= frames) continue;
      const double x = at - static_cast<double>(j);
      const double px = std::numbers::pi * x;
      const double weight =
          (x == 0.0 ? 1.0 : std::sin(px) / px) * (0.5 + 0.5 * std::cos(px / kHalf));
      for (std::size_t c = 0; c < tap.rows(); ++c) {
        sums[c] += weight * static_cast<double>(tap.row(c)[static_cast<std::size_t>(j)]);
      }
    }
    for (std::size_t c = 0; c < tap.rows(); ++c) {
      moved.row(c)[static_cast<std::size_t>(i)] = static_cast<float>(sums[c]);
    }
  }
  return moved;
}

/// Twice through a section of second order at a frequency: a low pass of the fourth order, or more.
inline void low_pass(StemArray& tap, double hz, double sr, int times) {
  const double w = 2.0 * std::numbers::pi * hz / sr, cosine = std::cos(w);
  for (int t = 0; t < times; ++t) {
    // Butterworth sections of one filter of the order 2 * times.
    const double q = 0.5 / std::cos(std::numbers::pi * (2 * t + 1) / (4.0 * times));
    const double alpha = std::sin(w) / (2.0 * q), a0 = 1.0 + alpha;
    const double b = (1.0 - cosine) / 2.0 / a0, a1 = -2.0 * cosine / a0, a2 = (1.0 - alpha) / a0;
    for (std::size_t c = 0; c < tap.rows(); ++c) {
      double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
      for (float& x : tap.row(c)) {
        const double x0 = static_cast<double>(x);
        const double y = b * (x0 + 2.0 * x1 + x2) - a1 * y1 - a2 * y2;
        x2 = x1, x1 = x0, y2 = y1, y1 = y;
        x = static_cast<float>(y);
      }
    }
  }
}

/// A bell of an equaliser.
inline void bell(StemArray& tap, double hz, double db, double q, double sr) {
  const double w = 2.0 * std::numbers::pi * hz / sr, a = std::pow(10.0, db / 40.0);
  const double alpha = std::sin(w) / (2.0 * q), a0 = 1.0 + alpha / a;
  const double b0 = (1.0 + alpha * a) / a0, b1 = -2.0 * std::cos(w) / a0,
               b2 = (1.0 - alpha * a) / a0;
  const double a2 = (1.0 - alpha / a) / a0;
  for (std::size_t c = 0; c < tap.rows(); ++c) {
    double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    for (float& x : tap.row(c)) {
      const double x0 = static_cast<double>(x);
      const double y = b0 * x0 + b1 * x1 + b2 * x2 - b1 * y1 - a2 * y2;
      x2 = x1, x1 = x0, y2 = y1, y1 = y;
      x = static_cast<float>(y);
    }
  }
}

}  // namespace verdel::internal::testing
