#include "dynamics.hpp"

#include <algorithm>
#include <cmath>
#include <deque>
#include <numbers>

namespace demo {
namespace {

/// The weight of the newest value in an average of so many seconds.
double one_pole(double seconds, double sr) {
  return 1.0 - std::exp(-1.0 / (seconds * sr));
}

double factor(double decibels) {
  return std::pow(10.0, decibels / 20.0);
}

double mean_power(const Stereo& sound, std::size_t i) {
  return 0.5 * (sound.left[i] * sound.left[i] + sound.right[i] * sound.right[i]);
}

/// Writes one channel's factors; `power(i)` is what it listens to.
template <class Power>
void compress(const Compressor& set, double sr, Power power, std::vector<double>& gains) {
  const double attack = one_pole(set.attack, sr), release = one_pole(set.release, sr);
  double followed = 0.0;
  for (std::size_t i = 0; i < gains.size(); ++i) {
    const double now = power(i);
    followed += (now > followed ? attack : release) * (now - followed);
    const double over = std::max(0.0, 10.0 * std::log10(followed + 1e-12) - set.threshold_db);
    gains[i] = factor(set.makeup_db - over * (1.0 - 1.0 / set.ratio));
  }
}

/// The larger of both channels' peaks over this sample and the `ahead` that follow.
std::vector<double> peaks_ahead(const Stereo& sum, std::size_t ahead) {
  std::vector<double> peaks(sum.frames());
  std::deque<std::size_t> falling;  // places of peaks, each higher than those behind it
  const auto peak = [&](std::size_t i) {
    return std::max(std::abs(sum.left[i]), std::abs(sum.right[i]));
  };
  for (std::size_t i = 0, next = 0; i < peaks.size(); ++i) {
    for (; next < peaks.size() && next <= i + ahead; ++next) {
      while (!falling.empty() && peak(falling.back()) <= peak(next)) falling.pop_back();
      falling.push_back(next);
    }
    if (falling.front() < i) falling.pop_front();
    peaks[i] = peak(falling.front());
  }
  return peaks;
}

}  // namespace

Stereo Compressor::gains(const Stereo& sum, double sr) const {
  Stereo result(sum.frames());
  if (linked) {
    compress(
        *this, sr, [&](std::size_t i) { return mean_power(sum, i); }, result.left);
    result.right = result.left;
  } else {
    compress(
        *this, sr, [&](std::size_t i) { return sum.left[i] * sum.left[i]; }, result.left);
    compress(
        *this, sr, [&](std::size_t i) { return sum.right[i] * sum.right[i]; }, result.right);
  }
  return result;
}

Stereo Limiter::gains(const Stereo& sum, double sr) const {
  const auto ahead = static_cast<std::size_t>(std::lround(lookahead * sr));
  const double drive = factor(drive_db), recovery = one_pole(release, sr);
  const std::vector<double> peaks = peaks_ahead(sum, ahead);
  std::deque<double> latest(ahead + 1, 1.0);
  Stereo result(sum.frames());
  double gain = 1.0;
  for (std::size_t i = 0; i < peaks.size(); ++i) {
    gain += recovery * (1.0 - gain);
    if (drive * peaks[i] * gain > ceiling) gain = ceiling / (drive * peaks[i]);
    latest.pop_front();
    latest.push_back(gain);
    double smooth = 0.0;
    for (const double value : latest) smooth += value;
    result.left[i] = result.right[i] = drive * (smooth / static_cast<double>(latest.size()));
  }
  return result;
}

Stereo Saturation::gains(const Stereo& sum, double) const {
  const auto one = [this](double value) {
    return std::abs(value) < 1e-9 ? 1.0 : std::tanh(drive * value) / (drive * value);
  };
  Stereo result(sum.frames());
  std::ranges::transform(sum.left, result.left.begin(), one);
  std::ranges::transform(sum.right, result.right.begin(), one);
  return result;
}

Stereo FaderRides::gains(const Stereo& sum, double sr) const {
  Stereo result(sum.frames());
  for (std::size_t i = 0; i < sum.frames(); ++i) {
    double decibels = 0.0;
    for (const Ride& ride : rides) {
      const double turns = static_cast<double>(i) / (sr * ride.period);
      decibels += ride.db * std::sin(2.0 * std::numbers::pi * turns + ride.phase);
    }
    result.left[i] = result.right[i] = factor(decibels);
  }
  return result;
}

}  // namespace demo
