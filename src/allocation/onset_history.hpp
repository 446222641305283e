#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "allocation/c14_constants.hpp"

namespace verdel::internal {

/// What is left of a past for each of C14_HISTORY_DELAYS:
/// exp(-(delay in seconds) / C14_HISTORY_TAU).
using HistoryDecays = std::array<double, C14_HISTORY_DELAYS.size()>;
HistoryDecays history_decays(int sr);

/// Mean of the up to `frames` values before each value, itself excluded; 0 at the first.
std::vector<double> _c14_previous_mean(std::span<const double> envelope, std::size_t frames);

/// The strongest faded past on the grid of C14_HISTORY_DELAYS, for one frame t of one tile:
/// history = max over d of decay(d) * current[t - d], and gated_history the same with each past
/// frame weighted by its onset. A peak envelope, not a sum.
///
/// Shapes: current is [frames][columns], onset [frames], history and gated_history [columns]. Past
/// frames before the first count as nothing. Overlap: none allowed.
void _c14_history(const float* current, std::span<const double> onset, std::size_t columns,
                  const HistoryDecays& decays, std::size_t t, float* history, float* gated_history);

/// A stem's share of a cell: score / total, or 1 / stems where the total does not mark a winner.
inline double _c14_normalized(double score, double total, double score_floor, double equal_share) {
  return total > score_floor ? score / total : equal_share;
}

}  // namespace verdel::internal
