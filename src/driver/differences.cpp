#include "driver/differences.hpp"

#include <span>

#include "inputs/levels.hpp"
#include "support/number_text.hpp"

namespace verdel {
namespace {

void add_to(std::span<double> sum, std::span<const double> values) {
  for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += values[i];
}

void subtract_from(std::span<const double> whole, std::span<double> part) {
  for (std::size_t i = 0; i < part.size(); ++i) part[i] = whole[i] - part[i];
}

}  // namespace

AudioArray sum_of(const StemMap& taps, std::size_t channels, std::size_t frames) {
  AudioArray sum = AudioArray::zeros(channels, frames);
  for (const auto& tap : taps) add_to(sum.flat(), tap.audio.flat());
  return sum;
}

AudioArray difference_from(AudioView whole, AudioArray part) {
  for (std::size_t c = 0; c < part.rows(); ++c) subtract_from(whole.row(c), part.row(c));
  return part;
}

std::string level_against(AudioView part, double whole_rms) {
  return signed_one_decimal(levels(part).rms - whole_rms) + " dB";
}

}  // namespace verdel
