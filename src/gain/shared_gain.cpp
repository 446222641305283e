#include "gain/shared_gain.hpp"

#include <algorithm>
#include <cmath>
#include <span>
#include <vector>

#include "gain/gain_curves.hpp"
#include "signal/levels.hpp"
#include "signal/stem_sums.hpp"
#include "signal/sums.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

// A block of every row in use stays in the cache.
constexpr std::size_t kBlock = LevelSums::kBlock;

// An odd number of samples, so that a window has its sample in the middle. Times without measure
// end at a count that a double still holds exactly.
std::size_t odd_sample_count(int sr, double time_ms) {
  constexpr double kLargestCount = 0x1p52;
  const double samples = std::trunc(static_cast<double>(sr) * time_ms / 1000.0);
  const auto count = static_cast<std::size_t>(std::clamp(samples, 0.0, kLargestCount));
  return std::max<std::size_t>(count | 1, 3);
}

// Calls work(channel, first, number of samples) for every block, in order.
template <class Work>
void for_each_block(AudioView audio, const StopToken& stop, Work work) {
  for (std::size_t channel = 0; channel < audio.rows(); ++channel) {
    for (std::size_t first = 0; first < audio.columns(); first += kBlock) {
      stop.check();
      work(channel, first, std::min(kBlock, audio.columns() - first));
    }
  }
}

template <class Refuse>
void require_finite(AudioView audio, const StopToken& stop, Refuse refuse) {
  for_each_block(audio, stop, [&](std::size_t channel, std::size_t first, std::size_t count) {
    if (!all_finite(audio.row(channel).subspan(first, count))) refuse();
  });
}

[[noreturn]] void refuse_tap() {
  throw ValueError("single-band taps must match the finite full mix");
}

VERDEL_INLINE void add_product(const float* __restrict values, const double* __restrict gain,
                               std::size_t count, double* __restrict sum) {
  for (std::size_t i = 0; i < count; ++i) sum[i] += static_cast<double>(values[i]) * gain[i];
}

VERDEL_INLINE void subtract_from(const double* __restrict whole, std::size_t count,
                                 double* __restrict part) {
  for (std::size_t i = 0; i < count; ++i) part[i] = whole[i] - part[i];
}

}  // namespace

AudioArray sum_of_taps(AudioView mix, const StemMap& taps, const StopToken& stop,
                       const SongStorage& storage) {
  if (mix.empty() || taps.empty()) {
    throw ValueError("single-band model needs channels, samples and taps");
  }
  for (const auto& tap : taps) {
    if (!mix.same_shape(tap.audio.view())) refuse_tap();
  }
  return sum_of(taps, mix.rows(), mix.columns(), stop, storage);
}

AudioArray shared_single_band_gain(AudioView mix, AudioArray tap_sum, int sr, double gain_window_ms,
                                   double gain_smooth_ms, const StopToken& stop) {
  require_finite(mix, stop, [] { throw FloatingPointError("non-finite single-band mix"); });
  if (!mix.same_shape(tap_sum.view())) refuse_tap();
  require_finite(tap_sum.view(), stop, refuse_tap);
  const GainCurveSettings settings{
      .gw = odd_sample_count(sr, gain_window_ms),
      .sw = gain_smooth_ms > 0.0 ? odd_sample_count(sr, gain_smooth_ms) : 0,
      .sr = static_cast<double>(sr)};
  for (std::size_t channel = 0; channel < mix.rows(); ++channel) {
    const auto row = tap_sum.row(channel);
    ls_gain(mix.row(channel), row, settings, row, stop);
  }
  // Where the gain is finite so is every model: their samples are floats.
  require_finite(tap_sum.view(), stop,
                 [] { throw FloatingPointError("non-finite single-band model"); });
  return tap_sum;
}

double level_behind_models(AudioView mix, const StemMap& taps, AudioView gain,
                           const StopToken& stop) {
  std::vector<double> rest(kBlock);
  LevelSums sums;
  for_each_block(mix, stop, [&](std::size_t channel, std::size_t first, std::size_t count) {
    std::ranges::fill(rest, 0.0);
    for (const auto& tap : taps) {
      run_kernel<add_product>(tap.audio.row(channel).data() + first,
                              gain.row(channel).data() + first, count, rest.data());
    }
    run_kernel<subtract_from>(mix.row(channel).data() + first, count, rest.data());
    sums.add(std::span<const double>(rest).first(count));
  });
  return sums.levels().rms;
}

}  // namespace verdel::internal
