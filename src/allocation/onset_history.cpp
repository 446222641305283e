#include "allocation/onset_history.hpp"

#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>

#include "allocation/cell_grid.hpp"
#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

// One past frame and what it weighs now.
struct Past {
  const float* values;
  double decay, onset;
};

VERDEL_INLINE void raise(double* __restrict peak, const double* __restrict candidate,
                         std::size_t columns) {
  for (std::size_t b = 0; b < columns; ++b) {
    peak[b] = peak[b] > candidate[b] ? peak[b] : candidate[b];
  }
}

// One frame of a tile. Most frames lie behind no onset: their product is left out.
VERDEL_INLINE void history_frame(const Past* pasts, std::size_t count, std::size_t columns,
                                 float* __restrict history, float* __restrict gated_history) {
  alignas(64) double peak[CellGrid::kTileBins] = {};
  alignas(64) double gated_peak[CellGrid::kTileBins] = {};
  alignas(64) double faded[CellGrid::kTileBins];
  for (std::size_t i = 0; i < count; ++i) {
    const float* __restrict values = pasts[i].values;
    for (std::size_t b = 0; b < columns; ++b) {
      faded[b] = pasts[i].decay * static_cast<double>(values[b]);
    }
    raise(peak, faded, columns);
    if (pasts[i].onset == 0.0) continue;
    for (std::size_t b = 0; b < columns; ++b) faded[b] *= pasts[i].onset;
    raise(gated_peak, faded, columns);
  }
  for (std::size_t b = 0; b < columns; ++b) {
    history[b] = static_cast<float>(peak[b]);
    gated_history[b] = static_cast<float>(gated_peak[b]);
  }
}

}  // namespace

HistoryDecays history_decays(int sr) {
  HistoryDecays decays{};
  for (std::size_t i = 0; i < decays.size(); ++i) {
    const double seconds = static_cast<double>(C14_HISTORY_DELAYS[i] * C14_HOP) / sr;
    decays[i] = std::exp(-seconds / C14_HISTORY_TAU);
  }
  return decays;
}

std::vector<double> _c14_previous_mean(std::span<const double> envelope, std::size_t frames) {
  std::vector<double> means(envelope.size(), 0.0);
  for (std::size_t i = 1; i < envelope.size(); ++i) {
    const std::size_t count = std::min(i, frames);
    double total = 0.0;
    for (std::size_t offset = 1; offset <= count; ++offset) total += envelope[i - offset];
    means[i] = total / static_cast<double>(count);
  }
  return means;
}

void _c14_history(const float* current, std::span<const double> onset, std::size_t columns,
                  const HistoryDecays& decays, std::size_t t, float* history,
                  float* gated_history) {
  assert(columns <= CellGrid::kTileBins);
  std::array<Past, C14_HISTORY_DELAYS.size()> pasts{};
  std::size_t count = 0;
  for (; count < pasts.size() && C14_HISTORY_DELAYS[count] <= t; ++count) {
    const std::size_t earlier = t - C14_HISTORY_DELAYS[count];
    pasts[count] = {current + earlier * columns, decays[count], onset[earlier]};
  }
  run_kernel<history_frame>(pasts.data(), count, columns, history, gated_history);
}

}  // namespace verdel::internal
