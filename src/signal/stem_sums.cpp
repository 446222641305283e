#include "signal/stem_sums.hpp"

#include <algorithm>
#include <span>
#include <vector>

#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

// A block of every row in use stays in the cache.
constexpr std::size_t kBlock = LevelSums::kBlock;

VERDEL_INLINE void add_to(double* __restrict sum, const float* __restrict values,
                          std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) sum[i] += static_cast<double>(values[i]);
}

VERDEL_INLINE void subtract(const double* whole, const double* part, std::size_t count,
                            double* __restrict difference) {
  for (std::size_t i = 0; i < count; ++i) difference[i] = whole[i] - part[i];
}

void subtract_from(std::span<const double> whole, std::span<double> part) {
  for (std::size_t i = 0; i < part.size(); ++i) part[i] = whole[i] - part[i];
}

}  // namespace

AudioArray sum_of(const StemMap& stems, std::size_t channels, std::size_t frames,
                  const StopToken& stop, const SongStorage& storage) {
  auto sum = storage.zeros<double>(channels, frames);
  for (std::size_t channel = 0; channel < channels; ++channel) {
    for (std::size_t first = 0; first < frames; first += kBlock) {
      stop.check();
      for (const auto& stem : stems) {
        run_kernel<add_to>(sum.row(channel).data() + first, stem.audio.row(channel).data() + first,
                           std::min(kBlock, frames - first));
      }
    }
  }
  return sum;
}

AudioArray difference_from(AudioView whole, AudioArray part) {
  for (std::size_t c = 0; c < part.rows(); ++c) subtract_from(whole.row(c), part.row(c));
  return part;
}

Levels levels_of_difference(AudioView whole, AudioView part) {
  LevelSums sums;
  std::vector<double> room(kBlock);
  for (std::size_t channel = 0; channel < part.rows(); ++channel) {
    for (std::size_t first = 0; first < part.columns(); first += kBlock) {
      const auto difference = std::span(room).first(std::min(kBlock, part.columns() - first));
      run_kernel<subtract>(whole.row(channel).data() + first, part.row(channel).data() + first,
                           difference.size(), difference.data());
      sums.add(std::span<const double>(difference));
    }
  }
  return sums.levels();
}

}  // namespace verdel::internal
