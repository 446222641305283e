#include "reverb.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace demo {
namespace {

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

class Room {
 public:
  /// `spread` in seconds sets this side apart from the other.
  Room(const Reverb& set, double spread, double sr)
      : feedback_(set.feedback),
        combs_{DelayLine(0.0297 + spread, sr), DelayLine(0.0371 + spread, sr),
               DelayLine(0.0411 + spread, sr), DelayLine(0.0437 + spread, sr)},
        all_passes_{DelayLine(0.0050 + spread, sr), DelayLine(0.0017 + spread, sr)} {}

  double operator()(double input) {
    double sum = 0.0;
    for (std::size_t c = 0; c < combs_.size(); ++c) {
      damped_[c] += 0.55 * (combs_[c].oldest() - damped_[c]);
      sum += 0.25 * combs_[c].oldest();
      combs_[c].push(input + feedback_ * damped_[c]);
    }
    for (DelayLine& line : all_passes_) {
      const double stored = sum + 0.7 * line.oldest();
      sum = line.oldest() - 0.7 * stored;
      line.push(stored);
    }
    return sum;
  }

 private:
  double feedback_;
  std::array<DelayLine, 4> combs_;
  std::array<double, 4> damped_{};
  std::array<DelayLine, 2> all_passes_;
};

}  // namespace

void Reverb::process(Stereo& sound, double sr) const {
  Room left(*this, 0.0, sr), right(*this, 0.0005, sr);
  for (std::size_t i = 0; i < sound.frames(); ++i) {
    sound.left[i] += wet * left(sound.left[i]);
    sound.right[i] += wet * right(sound.right[i]);
  }
}

}  // namespace demo
