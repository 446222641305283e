#include "chain/effect_blocks.hpp"

#include <algorithm>
#include <bit>

#include "chain/passages.hpp"
#include "chain/spectral_products.hpp"
#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

constexpr double kEffectSeconds = 1.2, kBeforeSeconds = 0.005;

VERDEL_INLINE void multiply_by(std::span<const float> factors, const float* values,
                               float* __restrict products) {
  for (std::size_t i = 0; i < factors.size(); ++i) products[i] = factors[i] * values[i];
}

VERDEL_INLINE void multiply_by_squares(std::span<const float> factors, float* values) {
  for (std::size_t i = 0; i < factors.size(); ++i) values[i] *= factors[i] * factors[i];
}

VERDEL_INLINE EffectSums sums_of(const float* rest, const float* source, const float* played,
                                 std::span<const float> gains) {
  constexpr std::size_t kLanes = 8;
  double cross[kLanes] = {}, power[kLanes] = {}, energy[kLanes] = {}, left[kLanes] = {};
  // What fills no whole row of lanes is a few samples of a passage, and left out.
  for (std::size_t i = 0; i + kLanes <= gains.size(); i += kLanes) {
    for (std::size_t k = 0; k < kLanes; ++k) {
      const auto r = static_cast<double>(rest[i + k]), g = static_cast<double>(gains[i + k]);
      const double s = g * static_cast<double>(source[i + k]);
      const double l = r - g * static_cast<double>(played[i + k]);
      cross[k] += r * s;
      power[k] += s * s;
      energy[k] += r * r;
      left[k] += l * l;
    }
  }
  EffectSums sums;
  for (std::size_t k = 0; k < kLanes; ++k) {
    sums.cross += cross[k];
    sums.power += power[k];
    sums.rest += energy[k];
    sums.left += left[k];
  }
  return sums;
}

}  // namespace

EffectPlan::EffectPlan(std::size_t frames, int sr)
    : length(static_cast<std::size_t>(kEffectSeconds * sr)),
      before(static_cast<std::size_t>(kBeforeSeconds * sr)),
      frame(std::bit_ceil(3 * length)),
      block(frame - length),
      blocks((frames + block - 1) / block),
      transform(frame) {}

void EffectSums::add(const EffectSums& other) {
  cross += other.cross;
  power += other.power;
  rest += other.rest;
  left += other.left;
}

EffectChannel::Room::Room(const EffectPlan& plan)
    : time(Array2D<float>::uninitialised(1, plan.frame)),
      spectrum(EffectSpectrum::uninitialised(1, plan.transform.bins())),
      gains(plan.block) {}

EffectChannel::EffectChannel(const EffectPlan& plan, const EffectSignals& signals,
                             std::size_t channel)
    : plan_(plan),
      source_(signals.source.row(channel)),
      rest_(signals.rest.row(channel)),
      gain_(signals.gain),
      channel_(channel),
      spectra_(EffectSpectrum::uninitialised(plan.blocks, plan.row_bins())) {}

SampleSpan EffectChannel::span_of(std::size_t block) const {
  return {block * plan_.block, std::min((block + 1) * plan_.block, rest_.size())};
}

std::span<const float> EffectChannel::gains_of(std::size_t block, Room& room) const {
  const SampleSpan span = span_of(block);
  const auto gains = std::span(room.gains).first(span.length());
  gain_.read(channel_, span.first, gains);
  return gains;
}

// Sample j of the frame is sample first + before - length + j of the source, so that the filter's
// answer at `first` stands at `length`, all that it comes from before it.
void EffectChannel::read_source(std::size_t block, std::span<float> time) const {
  const auto begin = static_cast<std::ptrdiff_t>(span_of(block).first + plan_.before) -
                     static_cast<std::ptrdiff_t>(plan_.length);
  const auto size = static_cast<std::ptrdiff_t>(source_.size());
  const auto from = std::clamp<std::ptrdiff_t>(begin, 0, size);
  const auto to =
      std::clamp<std::ptrdiff_t>(begin + static_cast<std::ptrdiff_t>(time.size()), from, size);
  std::ranges::fill(time, 0.0F);
  std::copy(source_.begin() + from, source_.begin() + to, time.begin() + (from - begin));
}

void EffectChannel::prepare(std::size_t block, std::span<std::complex<float>> power, Room& room) {
  read_source(block, room.time.flat());
  plan_.transform.forward(room.time.data(), spectra_.row(block).data());
  const auto gains = gains_of(block, room);
  std::ranges::fill(room.time.flat(), 0.0F);
  run_kernel<multiply_by>(gains, source_.data() + span_of(block).first, room.time.data());
  plan_.transform.forward(room.time.data(), room.spectrum.data());
  run_kernel<add_correlation>(room.spectrum.flat(), room.spectrum.flat(), power);
}

void EffectChannel::add_target(std::size_t block, Spans seen, std::span<std::complex<float>> sums,
                               Room& room) const {
  const auto gains = gains_of(block, room);
  const std::size_t first = span_of(block).first;
  run_kernel<multiply_by>(gains, rest_.data() + first, room.time.data() + plan_.length);
  keep_only(seen, first, room.time.flat().subspan(plan_.length, gains.size()));
  correlate_block(block, sums, room);
}

void EffectChannel::add_product(std::size_t block, Spans seen,
                                std::span<const std::complex<float>> filter,
                                std::span<std::complex<float>> sums, Room& room) const {
  play(block, filter, room);
  const auto gains = gains_of(block, room);
  run_kernel<multiply_by_squares>(gains, room.time.data() + plan_.length);
  keep_only(seen, span_of(block).first, room.time.flat().subspan(plan_.length, gains.size()));
  correlate_block(block, sums, room);
}

void EffectChannel::play(std::size_t block, std::span<const std::complex<float>> filter,
                         Room& room) const {
  run_kernel<multiply>(spectra_.row(block), filter, room.spectrum.flat());
  plan_.transform.inverse(room.spectrum.data(), room.time.data());
}

EffectSums EffectChannel::judge(std::size_t block, Spans heard, Room& room) const {
  const auto gains = gains_of(block, room);
  const SampleSpan span = span_of(block);
  EffectSums sums;
  for_each_overlap(heard, span, [&](std::size_t first, std::size_t stop) {
    const std::size_t at = first - span.first;
    sums.add(run_kernel<sums_of>(rest_.data() + first, source_.data() + first,
                                 room.time.data() + plan_.length + at,
                                 gains.subspan(at, stop - first)));
  });
  return sums;
}

/// What stands in the room at the block's place, with silence around it, against the source.
void EffectChannel::correlate_block(std::size_t block, std::span<std::complex<float>> sums,
                                    Room& room) const {
  const auto time = room.time.flat();
  std::ranges::fill(time.first(plan_.length), 0.0F);
  std::ranges::fill(time.subspan(plan_.length + span_of(block).length()), 0.0F);
  plan_.transform.forward(time.data(), room.spectrum.data());
  run_kernel<add_correlation>(spectra_.row(block), room.spectrum.flat(),
                              sums.first(room.spectrum.size()));
}

}  // namespace verdel::internal
