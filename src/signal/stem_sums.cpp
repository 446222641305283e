#include "signal/stem_sums.hpp"

#include <span>

namespace verdel::internal {
namespace {

void add_to(std::span<double> sum, std::span<const double> values) {
  for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += values[i];
}

void subtract_from(std::span<const double> whole, std::span<double> part) {
  for (std::size_t i = 0; i < part.size(); ++i) part[i] = whole[i] - part[i];
}

}  // namespace

AudioArray sum_of(const StemMap& stems, std::size_t channels, std::size_t frames) {
  AudioArray sum = AudioArray::zeros(channels, frames);
  for (const auto& stem : stems) add_to(sum.flat(), stem.audio.flat());
  return sum;
}

AudioArray difference_from(AudioView whole, AudioArray part) {
  for (std::size_t c = 0; c < part.rows(); ++c) subtract_from(whole.row(c), part.row(c));
  return part;
}

}  // namespace verdel::internal
