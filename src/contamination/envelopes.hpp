#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "signal/arrays.hpp"

/// How alike two sounds move: the correlation of their envelopes, the root mean square of the mono
/// sum in a window of 20 ms.
///
/// An envelope moves far more slowly than its signal, so signals are reduced to the mean squares of
/// short cells first, and the window slides from cell to cell. Sums of squares only ever add: no
/// rounding can bring a mean below zero, where its root would be no number.
namespace verdel::internal {

/// cells[k] = mean over samples k * cell .. k * cell + cell - 1 of the squared mean of the rows;
/// the last cell may hold fewer samples. `cell` is a power of two.
void mean_square_cells(RowsView<const float> rows, std::size_t cell, std::span<float> cells);

/// An envelope without its mean, ready to be compared.
struct EnvelopeCurve {
  std::vector<float> deviation;  ///< one value per cell
  double energy = 0.0;           ///< sum of its squares; 0 if the envelope is constant
};

/// The envelope over windows of `window_cells` >= 1 cells, reflecting at both ends.
EnvelopeCurve envelope_curve(std::span<const float> cells, double window_cells);

/// Pearson's coefficient of two curves of one length, -1 .. 1; not a number if one is constant.
double correlation(const EnvelopeCurve& p, const EnvelopeCurve& q);

}  // namespace verdel::internal
