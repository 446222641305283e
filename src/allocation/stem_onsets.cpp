#include "allocation/stem_onsets.hpp"

#include <algorithm>
#include <cmath>

namespace verdel::internal {
namespace {

// visit(values, how many) for the columns of each tile that bins first .. stop - 1 touch, in order.
template <class Visit>
void for_each_part(const CellRing& cells, std::size_t stem, std::size_t frame, std::size_t first,
                   std::size_t stop, Visit visit) {
  for (std::size_t bin = first; bin < stop;) {
    const std::size_t tile = bin / Tile::kBins, column = bin % Tile::kBins;
    const std::size_t count = std::min(Tile::kBins - column, stop - bin);
    visit(cells.tile(stem, tile) + CellRing::offset(frame) + column, count);
    bin += count;
  }
}

}  // namespace

StemOnsets::StemOnsets(const CellRing& support, std::size_t stems, int sr)
    : support_(support),
      stems_(stems),
      band_(transient_band(sr)),
      decays_(history_decays(sr)),
      strengths_(stems),
      onsets_(stems) {}

StemOnsets::BinRange StemOnsets::transient_band(int sr) {
  const double spacing = (sr / 2.0) / static_cast<double>(C14_BINS - 1);
  BinRange band{C14_BINS, C14_BINS};
  for (std::size_t bin = 0; bin < C14_BINS; ++bin) {
    const double frequency = static_cast<double>(bin) * spacing;
    if (frequency < C14_TRANSIENT_BAND_LOW_HZ) continue;
    band.first = std::min(band.first, bin);
    if (frequency > C14_TRANSIENT_BAND_HIGH_HZ) {
      band.stop = bin;
      break;
    }
  }
  return band;
}

void StemOnsets::find(const Block& block) {
  if (band_.first >= band_.stop) return;  // a rate so low that the band holds no bin
  for (std::size_t stem = 0; stem < stems_; ++stem) {
    for (std::size_t t = block.first; t < block.stop; ++t) {
      const double now = strength(stem, t);
      strengths_.at(stem, t) = now;
      onsets_.at(stem, t) = 0.0;
      if (t < kBack) continue;  // no onset is recognised before a full baseline exists
      const double rise = _c14_smoothstep(now / std::max(baseline(stem, t), C14_POWER_FLOOR),
                                          C14_ONSET_RATIO_LOW, C14_ONSET_RATIO_HIGH);
      if (rise == 0.0) continue;
      onsets_.at(stem, t) =
          rise * _c14_smoothstep(flatness(stem, t, now), C14_FLATNESS_LOW, C14_FLATNESS_HIGH);
    }
  }
}

PastOnsets StemOnsets::before(std::size_t stem, std::size_t frame) const {
  PastOnsets found{};
  for (std::size_t i = 0; i < decays_.size() && C14_HISTORY_DELAYS[i] <= frame; ++i) {
    const double onset = onsets_.at(stem, frame - C14_HISTORY_DELAYS[i]);
    if (onset == 0.0) continue;
    const auto weight = static_cast<float>(static_cast<double>(decays_[i]) * onset);
    found.past[found.count++] = {C14_HISTORY_DELAYS[i], weight};
  }
  return found;
}

/// Sixteen sums side by side: a chain of single additions would wait for itself.
double StemOnsets::strength(std::size_t stem, std::size_t frame) const {
  double lanes[Tile::kBins] = {};
  for_each_part(support_, stem, frame, band_.first, band_.stop,
                [&](const float* values, std::size_t count) {
                  for (std::size_t b = 0; b < count; ++b)
                    lanes[b] += static_cast<double>(values[b]);
                });
  double sum = 0.0;
  for (const double lane : lanes) sum += lane;
  return sum;
}

/// Geometric over arithmetic mean of the band: near 1 for an even spectrum, near 0 for a few peaks.
/// The floor, a millionth of the mean, lets empty bins lower it without making it 0 outright.
double StemOnsets::flatness(std::size_t stem, std::size_t frame, double strength) const {
  const auto bins = static_cast<double>(band_.stop - band_.first);
  const double mean = strength / bins;
  const double floor = std::max(mean * C14_FLATNESS_FLOOR, C14_POWER_FLOOR);
  double logarithms = 0.0;
  for_each_part(support_, stem, frame, band_.first, band_.stop,
                [&](const float* values, std::size_t count) {
                  for (std::size_t b = 0; b < count; ++b) {
                    logarithms += std::log(static_cast<double>(values[b]) + floor);
                  }
                });
  return std::exp(logarithms / bins) / std::max(mean + floor, C14_POWER_FLOOR);
}

/// Added up anew, so that the sum holds nothing of what has left it.
double StemOnsets::baseline(std::size_t stem, std::size_t frame) const {
  double total = 0.0;
  for (std::size_t back = 1; back <= kBack; ++back) total += strengths_.at(stem, frame - back);
  return total / static_cast<double>(kBack);
}

}  // namespace verdel::internal
