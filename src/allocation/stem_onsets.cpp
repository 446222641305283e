#include <algorithm>
#include <cmath>

#include "allocation/onset_history.hpp"
#include "allocation/phases.hpp"

namespace verdel::internal {
namespace {

/// Bins whose frequency lies in the onset band, last excluded; both edges of the band count.
struct BinRange {
  std::size_t first, stop;
};

BinRange transient_band(int sr) {
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

// visit(columns of one frame, how many) for each tile that the band touches, in order.
template <class Visit>
void for_each_part(const CellGrid& grid, const float* cells, const BinRange& band,
                   std::size_t frame, Visit visit) {
  for (std::size_t bin = band.first; bin < band.stop;) {
    const std::size_t tile = bin / CellGrid::kTileBins;
    const std::size_t stop = std::min(band.stop, CellGrid::first_bin(tile) + CellGrid::bins(tile));
    visit(cells + grid.index(bin, frame), stop - bin);
    bin = stop;
  }
}

/// Sum of the support over the band, for each frame. Eight sums side by side: a chain of single
/// additions would wait for itself.
std::vector<double> band_strength(const CellGrid& grid, const float* support,
                                  const BinRange& band) {
  std::vector<double> strength(grid.frames());
  for (std::size_t frame = 0; frame < grid.frames(); ++frame) {
    double lanes[8] = {};
    for_each_part(grid, support, band, frame, [&](const float* values, std::size_t count) {
      std::size_t b = 0;
      for (; b + 8 <= count; b += 8) {
        for (std::size_t lane = 0; lane < 8; ++lane) {
          lanes[lane] += static_cast<double>(values[b + lane]);
        }
      }
      for (; b < count; ++b) lanes[b % 8] += static_cast<double>(values[b]);
    });
    strength[frame] = ((lanes[0] + lanes[1]) + (lanes[2] + lanes[3])) +
                      ((lanes[4] + lanes[5]) + (lanes[6] + lanes[7]));
  }
  return strength;
}

/// Geometric over arithmetic mean of the band: near 1 for an even spectrum, near 0 for a few peaks.
/// The floor, a millionth of the mean, lets empty bins lower it without making it 0 outright.
double band_flatness(const CellGrid& grid, const float* support, const BinRange& band,
                     std::size_t frame, double strength) {
  const auto bins = static_cast<double>(band.stop - band.first);
  const double mean = strength / bins;
  const double floor = std::max(mean * C14_FLATNESS_FLOOR, C14_POWER_FLOOR);
  double logarithms = 0.0;
  for_each_part(grid, support, band, frame, [&](const float* values, std::size_t count) {
    for (std::size_t b = 0; b < count; ++b) {
      logarithms += std::log(static_cast<double>(values[b]) + floor);
    }
  });
  return std::exp(logarithms / bins) / std::max(mean + floor, C14_POWER_FLOOR);
}

/// Weight of each frame as an onset: a jump of the band's strength above its recent mean, in a
/// broad spectrum. No onset is recognised before a full baseline exists.
void weigh_onsets(const CellGrid& grid, const float* support, int sr, std::span<double> onset) {
  std::fill(onset.begin(), onset.end(), 0.0);
  const BinRange band = transient_band(sr);
  if (band.first >= band.stop) return;  // a rate so low that the band holds no bin
  const std::vector<double> strength = band_strength(grid, support, band);
  const std::vector<double> baseline = _c14_previous_mean(strength, C14_ONSET_BASELINE_FRAMES);
  for (std::size_t t = C14_ONSET_BASELINE_FRAMES; t < onset.size(); ++t) {
    const double rise = _c14_smoothstep(strength[t] / std::max(baseline[t], C14_POWER_FLOOR),
                                        C14_ONSET_RATIO_LOW, C14_ONSET_RATIO_HIGH);
    if (rise == 0.0) continue;
    onset[t] = rise * _c14_smoothstep(band_flatness(grid, support, band, t, strength[t]),
                                      C14_FLATNESS_LOW, C14_FLATNESS_HIGH);
  }
}

/// Marks the frames that an onset reaches through one of the delays.
void mark_frames_behind(std::span<const double> onset, std::span<char> behind) {
  std::fill(behind.begin(), behind.end(), 0);
  for (std::size_t t = 0; t < onset.size(); ++t) {
    if (onset[t] == 0.0) continue;
    for (const std::size_t delay : C14_HISTORY_DELAYS) {
      if (t + delay < behind.size()) behind[t + delay] = 1;
    }
  }
}

}  // namespace

void find_onsets(ChannelRender& render, std::size_t index) {
  const float* support = std::as_const(render.support_scores).row(index).data();
  const auto onset = render.onsets.row(index);
  weigh_onsets(render.grid, support, render.job.sr, onset);
  mark_frames_behind(onset, render.behind_onsets.row(index));
}

}  // namespace verdel::internal
