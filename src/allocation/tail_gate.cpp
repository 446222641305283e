#include "allocation/tail_gate.hpp"

#include <algorithm>

#include "allocation/gate_step.hpp"
#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

// One candidate's bins of a frame.
struct GateLanes {
  const float* projection09;
  const float* projection10;
  const double* total09;
  const double* total10;
  const float* candidate;
  float* gate;
};

VERDEL_INLINE float floored(double total) {
  return static_cast<float>(total > C14_POWER_FLOOR ? total : C14_POWER_FLOOR);
}

VERDEL_INLINE void raise_gate(const GateLanes& lanes) {
  constexpr auto kStrength = static_cast<float>(C14_TAIL_STRENGTH);
  const float* projection09 = lanes.projection09;
  const float* projection10 = lanes.projection10;
  const double* total09 = lanes.total09;
  const double* total10 = lanes.total10;
  const float* candidate = lanes.candidate;
  float* gate = lanes.gate;
  VERDEL_INDEPENDENT
  for (std::size_t b = 0; b < Tile::kBins; ++b) {
    const float share_gain =
        projection09[b] / floored(total09[b]) - projection10[b] / floored(total10[b]);
    const float opened =
        kStrength * (gate_step<C14_SHARE_GAIN_LOW, C14_SHARE_GAIN_HIGH>(share_gain) * candidate[b]);
    gate[b] = gate[b] > opened ? gate[b] : opened;
  }
}

}  // namespace

bool open_tail_gate(const std::vector<TailCandidate>& candidates, const FrameProjection& projected,
                    std::span<float> gate) {
  std::ranges::fill(gate, 0.0F);
  for (const TailCandidate& candidate : candidates) {
    const std::size_t at = candidate.tile * Tile::kBins;
    run_kernel<raise_gate>(
        GateLanes{.projection09 = projected.projections[0].row(candidate.stem).data() + at,
                  .projection10 = projected.projections[1].row(candidate.stem).data() + at,
                  .total09 = projected.totals[0].data() + at,
                  .total10 = projected.totals[1].data() + at,
                  .candidate = candidate.gate,
                  .gate = gate.data() + at});
  }
  return std::ranges::any_of(gate.first(C14_BINS), [](float value) { return value > 0.0F; });
}

}  // namespace verdel::internal
