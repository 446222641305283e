#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace verdel {

/// What is left of a past `delay` frames ago: exp(-(delay in seconds) / C14_HISTORY_TAU).
double history_decay(std::size_t delay, int sr);

/// Mean of the up to `frames` values before each value, itself excluded; 0 at the first.
std::vector<double> _c14_previous_mean(std::span<const double> envelope, std::size_t frames);

/// The strongest faded past on the grid of C14_HISTORY_DELAYS, for one tile of cells:
/// history[t] = max over d of decay(d) * current[t - d], and gated_history the same with each past
/// frame weighted by its onset. A peak envelope, not a sum.
///
/// Shapes: current, history and gated_history are [frames][columns], onset [frames]. Past frames
/// before the first count as nothing. Overlap: none allowed.
void _c14_history(const float* current, std::span<const double> onset, std::size_t columns, int sr,
                  float* history, float* gated_history);

/// A stem's share of a cell: score / total, or 1 / stems where the total does not mark a winner.
inline double _c14_normalized(double score, double total, double score_floor, double equal_share) {
  return total > score_floor ? score / total : equal_share;
}

}  // namespace verdel
