#include "gain/shared_gain.hpp"

#include <algorithm>
#include <cmath>
#include <span>
#include <vector>

#include "gain/gain_curves.hpp"
#include "signal/sums.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kBlock = 4096;  // samples; a block of every row in use stays in cache

// An odd number of samples, so that a window has its sample in the middle. Times without measure
// end at a count that a double still holds exactly.
std::size_t odd_sample_count(int sr, double time_ms) {
  constexpr double kLargestCount = 0x1p52;
  const double samples = std::trunc(static_cast<double>(sr) * time_ms / 1000.0);
  const auto count = static_cast<std::size_t>(std::clamp(samples, 0.0, kLargestCount));
  return std::max<std::size_t>(count | 1, 3);
}

void require_finite_mix(AudioView mix, const StopToken& stop) {
  for (std::size_t channel = 0; channel < mix.rows(); ++channel) {
    for (std::size_t first = 0; first < mix.columns(); first += kBlock) {
      stop.check();
      const std::size_t count = std::min(kBlock, mix.columns() - first);
      if (!all_finite(mix.row(channel).subspan(first, count))) {
        throw FloatingPointError("non-finite single-band mix");
      }
    }
  }
}

[[noreturn]] void refuse_tap() {
  throw ValueError("single-band taps must match the finite full mix");
}

std::vector<double> tap_sum(const StemMap& taps, std::size_t channel, std::size_t samples,
                            const StopToken& stop) {
  std::vector<double> sum(samples, 0.0);
  for (std::size_t first = 0; first < samples; first += kBlock) {
    stop.check();
    const std::size_t count = std::min(kBlock, samples - first);
    for (const auto& tap : taps) {
      const auto values = tap.audio.row(channel).subspan(first, count);
      if (!all_finite(values)) refuse_tap();
      for (std::size_t i = 0; i < count; ++i) sum[first + i] += values[i];
    }
  }
  return sum;
}

// Multiplies and adds block by block, so that no array is read twice.
void apply_gain(const StemMap& taps, std::size_t channel, const SampleSpan& kept,
                const StopToken& stop, SharedGainModel& result) {
  const auto gain = result.gain.row(channel);
  const auto sum = result.model_sum.row(channel);
  auto blocks = AudioArray::uninitialised(2, kBlock);
  const auto model = blocks.row(0), block_sum = blocks.row(1);
  for (std::size_t first = 0; first < gain.size(); first += kBlock) {
    stop.check();
    const std::size_t count = std::min(kBlock, gain.size() - first);
    const std::size_t keep_from = std::clamp(kept.first, first, first + count);
    const std::size_t keep_to = std::clamp(kept.stop, keep_from, first + count);
    std::ranges::fill(block_sum, 0.0);
    for (std::size_t stem = 0; stem < taps.size(); ++stem) {
      const double* tap = taps[stem].audio.row(channel).data() + first;
      for (std::size_t i = 0; i < count; ++i) {
        model[i] = tap[i] * gain[first + i];
        block_sum[i] += model[i];
      }
      if (keep_from == keep_to) continue;
      std::copy_n(model.data() + (keep_from - first), keep_to - keep_from,
                  result.models[stem].audio.row(channel).data() + (keep_from - kept.first));
    }
    if (!all_finite(block_sum.first(count))) {
      throw FloatingPointError("non-finite single-band model");
    }
    std::ranges::copy(block_sum.first(count), sum.subspan(first).begin());
  }
}

}  // namespace

SharedGainModel shared_single_band_model(AudioView mix, const StemMap& taps, int sr,
                                         double gain_window_ms, double gain_smooth_ms,
                                         const StopToken& stop, std::optional<SampleSpan> kept) {
  if (mix.empty() || taps.empty()) {
    throw ValueError("single-band model needs channels, samples and taps");
  }
  require_finite_mix(mix, stop);
  for (const auto& tap : taps) {
    if (!mix.same_shape(tap.audio.view())) refuse_tap();
  }
  const GainCurveSettings settings{
      .gw = odd_sample_count(sr, gain_window_ms),
      .sw = gain_smooth_ms > 0.0 ? odd_sample_count(sr, gain_smooth_ms) : 0,
      .sr = static_cast<double>(sr)};

  const SampleSpan wanted = kept.value_or(SampleSpan{0, mix.columns()});
  SharedGainModel result;
  result.gain = AudioArray::uninitialised(mix.rows(), mix.columns());
  result.model_sum = AudioArray::uninitialised(mix.rows(), mix.columns());
  result.models.reserve(taps.size());
  for (const auto& tap : taps) {
    result.models.push_back({tap.name, AudioArray::uninitialised(mix.rows(), wanted.length())});
  }
  for (std::size_t channel = 0; channel < mix.rows(); ++channel) {
    const auto summed = tap_sum(taps, channel, mix.columns(), stop);
    const auto gain = ls_gain(mix.row(channel), summed, settings, stop);
    std::copy(gain.begin(), gain.end(), result.gain.row(channel).begin());
    apply_gain(taps, channel, wanted, stop, result);
  }
  return result;
}

}  // namespace verdel::internal
