#include "master_chain.hpp"

#include <algorithm>
#include <array>
#include <cmath>

namespace demo {
namespace {

/// The weight of the newest value in an average of so many seconds.
double one_pole(double seconds, double sr) {
  return 1.0 - std::exp(-1.0 / (seconds * sr));
}

/// Above -24 dB two and a half decibels become one; both sides move together.
void compress(Stereo& bus, double sr) {
  constexpr double kThreshold = -24.0, kRatio = 2.5, kMakeup = 7.0;  // dB, dB in a dB out, dB
  const double attack = one_pole(0.008, sr), release = one_pole(0.14, sr);
  double power = 0.0;
  for (std::size_t i = 0; i < bus.frames(); ++i) {
    const double now = 0.5 * (bus.left[i] * bus.left[i] + bus.right[i] * bus.right[i]);
    power += (now > power ? attack : release) * (now - power);
    const double over = std::max(0.0, 10.0 * std::log10(power + 1e-12) - kThreshold);
    const double gain = std::pow(10.0, (kMakeup - over * (1.0 - 1.0 / kRatio)) / 20.0);
    bus.left[i] *= gain;
    bus.right[i] *= gain;
  }
}

/// A line of samples that comes round again.
class DelayLine {
 public:
  explicit DelayLine(double seconds, double sr)
      : samples_(std::max<std::size_t>(1, static_cast<std::size_t>(std::lround(seconds * sr)))) {}

  double oldest() const { return samples_[position_]; }
  void push(double value) {
    samples_[position_] = value;
    position_ = (position_ + 1) % samples_.size();
  }

 private:
  std::vector<double> samples_;
  std::size_t position_ = 0;
};

/// Four combs side by side and two all-passes behind them (Schroeder 1962).
class Reverb {
 public:
  /// `spread` in seconds sets this side apart from the other.
  Reverb(double spread, double sr)
      : combs_{DelayLine(0.0297 + spread, sr), DelayLine(0.0371 + spread, sr),
               DelayLine(0.0411 + spread, sr), DelayLine(0.0437 + spread, sr)},
        all_passes_{DelayLine(0.0050 + spread, sr), DelayLine(0.0017 + spread, sr)} {}

  double operator()(double input) {
    double sum = 0.0;
    for (std::size_t c = 0; c < combs_.size(); ++c) {
      damped_[c] += 0.55 * (combs_[c].oldest() - damped_[c]);
      sum += 0.25 * combs_[c].oldest();
      combs_[c].push(input + 0.82 * damped_[c]);
    }
    for (DelayLine& line : all_passes_) {
      const double stored = sum + 0.7 * line.oldest();
      sum = line.oldest() - 0.7 * stored;
      line.push(stored);
    }
    return sum;
  }

 private:
  std::array<DelayLine, 4> combs_;
  std::array<double, 4> damped_{};
  std::array<DelayLine, 2> all_passes_;
};

void add_room(Stereo& bus, double sr) {
  constexpr double kWet = 0.12;
  Reverb left(0.0, sr), right(0.0005, sr);
  for (std::size_t i = 0; i < bus.frames(); ++i) {
    bus.left[i] += kWet * left(bus.left[i]);
    bus.right[i] += kWet * right(bus.right[i]);
  }
}

void saturate(Stereo& bus) {
  constexpr double kDrive = 0.7;
  for (auto* side : {&bus.left, &bus.right}) {
    for (double& value : *side) value = std::tanh(kDrive * value) / kDrive;
  }
}

/// Falls at once where a sample would pass the ceiling, and recovers slowly.
void limit(Stereo& bus, double sr) {
  constexpr double kCeiling = 0.89;
  const double release = one_pole(0.08, sr);
  double gain = 1.0;
  for (std::size_t i = 0; i < bus.frames(); ++i) {
    const double peak = std::max(std::abs(bus.left[i]), std::abs(bus.right[i]));
    gain += release * (1.0 - gain);
    if (peak * gain > kCeiling) gain = kCeiling / peak;
    bus.left[i] *= gain;
    bus.right[i] *= gain;
  }
}

}  // namespace

void master(Stereo& bus, double sr) {
  compress(bus, sr);
  add_room(bus, sr);
  saturate(bus);
  limit(bus, sr);
}

}  // namespace demo
