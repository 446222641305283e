#include <algorithm>
#include <array>
#include <vector>

#include "allocation/phases.hpp"
#include "signal/instruction_sets.hpp"

namespace verdel {
namespace {

// Bins at or below the bass fade's lower edge never open; whole stretches are skipped.
constexpr std::size_t kStretch = 16;
static_assert(CellGrid::kTileBins % kStretch == 0 && CellGrid::kLastTileColumns % kStretch == 0);

// The columns of one frame of a tile that the gate looks at.
struct GateFrame {
  const float* scores09;
  const float* scores10;
  const double* total09;
  const double* total10;
  const float* present;
  const float* history;
  const float* transient;
  const float* later;
  const double* history_total;
  const double* bass_fade;
  double* gate;
};

VERDEL_INLINE double floored(double value) {
  return value > C14_POWER_FLOOR ? value : C14_POWER_FLOOR;
}

// The smooth step with plain comparisons, so that the loop over cells becomes vectors.
VERDEL_INLINE double step(double value, double edge0, double edge1) {
  double t = (value - edge0) / (edge1 - edge0);
  t = t > 0.0 ? t : 0.0;
  t = t < 1.0 ? t : 1.0;
  return (t * t) * (3.0 - 2.0 * t);
}

// Five tests on a cell: endpoint 09 gave the stem clearly more than endpoint 10; the stem was much
// stronger a moment ago; it does not come back soon; what just happened here was mostly this stem,
// and came from an onset.
VERDEL_INLINE void raise_gate(const GateFrame& frame, std::size_t first) {
  for (std::size_t b = first; b < first + kStretch; ++b) {
    const double history = static_cast<double>(frame.history[b]);
    const double difference = static_cast<double>(frame.scores09[b]) / floored(frame.total09[b]) -
                              static_cast<double>(frame.scores10[b]) / floored(frame.total10[b]);
    const double share_gain = difference > 0.0 ? difference : 0.0;
    const double tail_ratio = history / floored(static_cast<double>(frame.present[b]));
    const double later_ratio = static_cast<double>(frame.later[b]) / floored(history);
    const double dominance = history / floored(frame.history_total[b]);
    const double transient = static_cast<double>(frame.transient[b]) / floored(history);
    const double share_test = step(share_gain, C14_SHARE_GAIN_LOW, C14_SHARE_GAIN_HIGH);
    const double tail_test = step(tail_ratio, C14_TAIL_RATIO_LOW, C14_TAIL_RATIO_HIGH);
    const double release_test = 1.0 - step(later_ratio, C14_LATER_RATIO_LOW, C14_LATER_RATIO_HIGH);
    const double dominance_test = step(dominance, C14_DOMINANCE_LOW, C14_DOMINANCE_HIGH);
    const double transient_test =
        step(transient, C14_TRANSIENT_SHARE_LOW, C14_TRANSIENT_SHARE_HIGH);
    const double stem_gate =
        ((((share_test * tail_test) * release_test) * dominance_test) * transient_test) *
        frame.bass_fade[b];
    frame.gate[b] = frame.gate[b] > stem_gate ? frame.gate[b] : stem_gate;
  }
}

// Whether any cell of the stretch can open. The edges are a little wider than the tests', so that
// rounding cannot make this say no where a test says yes; hardly any stretch of music passes.
VERDEL_INLINE bool may_open(const GateFrame& frame, std::size_t first) {
  int open = 0;
  for (std::size_t b = first; b < first + kStretch; ++b) {
    const double history = static_cast<double>(frame.history[b]);
    const bool decayed = history > 1.99 * static_cast<double>(frame.present[b]);
    const bool dominant = history > 0.59 * frame.history_total[b];
    const bool struck = static_cast<double>(frame.transient[b]) > 0.19 * history;
    const bool gone = static_cast<double>(frame.later[b]) < 0.91 * history;
    open |= static_cast<int>(decayed) & static_cast<int>(dominant) & static_cast<int>(struck) &
            static_cast<int>(gone);
  }
  return open != 0;
}

static_assert(C14_TAIL_RATIO_LOW > 1.99 && C14_DOMINANCE_LOW > 0.59 &&
              C14_TRANSIENT_SHARE_LOW > 0.19 && C14_LATER_RATIO_HIGH < 0.91);

VERDEL_INLINE void gate_frame(const GateFrame& frame, std::size_t first, std::size_t columns) {
  for (std::size_t stretch = first; stretch < columns; stretch += kStretch) {
    if (may_open(frame, stretch)) raise_gate(frame, stretch);
  }
}

// The strongest value of the next C14_LATER_SUPPORT_FRAMES frames, the frame itself excluded, for
// as many frames at a time: the maxima from each frame of the next block to its end, joined with
// those from the beginning of the block after it (van Herk 1992).
class LaterMaximum {
 public:
  static constexpr std::size_t kBlock = C14_LATER_SUPPORT_FRAMES;

  /// `present` is [frames][columns]; the block begins at frame `first`.
  void load(const float* present, std::size_t frames, std::size_t columns, std::size_t first);
  const float* row(std::size_t frame_of_block) const { return maxima_[frame_of_block].data(); }

 private:
  using Row = std::array<float, CellGrid::kTileBins>;
  static void raise(Row& maxima, const float* values, std::size_t columns) {
    for (std::size_t b = 0; b < columns; ++b) maxima[b] = std::max(maxima[b], values[b]);
  }
  std::array<Row, kBlock> maxima_{};
};

void LaterMaximum::load(const float* present, std::size_t frames, std::size_t columns,
                        std::size_t first) {
  Row running{};
  for (std::size_t k = kBlock; k-- > 0;) {
    const std::size_t frame = first + 1 + k;
    if (frame < frames) raise(running, present + frame * columns, columns);
    maxima_[k] = running;
  }
  running = {};
  for (std::size_t k = 1; k < kBlock; ++k) {
    const std::size_t frame = first + kBlock + k;
    if (frame < frames) raise(running, present + frame * columns, columns);
    raise(maxima_[k], running.data(), columns);
  }
}

/// For each frame, whether an onset reaches it through one of the delays. Where none does, the
/// transient history is zero and so is the gate.
std::vector<char> frames_behind_onsets(std::span<const double> onset) {
  std::vector<char> behind(onset.size(), 0);
  for (std::size_t t = 0; t < onset.size(); ++t) {
    if (onset[t] == 0.0) continue;
    for (const std::size_t delay : C14_HISTORY_DELAYS) {
      if (t + delay < behind.size()) behind[t + delay] = 1;
    }
  }
  return behind;
}

std::array<double, CellGrid::kTileBins> bass_fade_of(std::size_t tile, int sr) {
  std::array<double, CellGrid::kTileBins> fade{};
  const double spacing = (sr / 2.0) / static_cast<double>(C14_BINS - 1);
  for (std::size_t b = 0; b < fade.size(); ++b) {
    const double frequency = static_cast<double>(CellGrid::first_bin(tile) + b) * spacing;
    fade[b] = _c14_smoothstep(frequency, C14_BASS_FADE_LOW_HZ, C14_BASS_FADE_HIGH_HZ);
  }
  return fade;
}

}  // namespace

void build_gate(ChannelRender& render, std::size_t index, std::size_t tile) {
  const CellGrid& grid = render.grid;
  const std::size_t columns = CellGrid::columns(tile);
  const auto fade = bass_fade_of(tile, render.job.sr);
  std::size_t open_from = 0;
  while (open_from < columns && fade[open_from + kStretch - 1] == 0.0) open_from += kStretch;
  if (open_from == columns) return;
  const std::vector<char> behind = frames_behind_onsets(render.onsets.row(index));
  const float* present = std::as_const(render.support_scores).row(index).data();
  LaterMaximum later;
  for (std::size_t first = 0; first < grid.frames(); first += LaterMaximum::kBlock) {
    const std::size_t stop = std::min(first + LaterMaximum::kBlock, grid.frames());
    const auto begin = behind.begin() + static_cast<std::ptrdiff_t>(first);
    const auto end = behind.begin() + static_cast<std::ptrdiff_t>(stop);
    if (std::find(begin, end, 1) == end) continue;
    later.load(present + grid.offset(tile, 0), grid.frames(), columns, first);
    for (std::size_t frame = first; frame < stop; ++frame) {
      if (behind[frame] == 0) continue;
      const std::size_t at = grid.offset(tile, frame);
      run_kernel<gate_frame>(
          GateFrame{.scores09 = std::as_const(render.scores09).row(index).data() + at,
                    .scores10 = std::as_const(render.scores10).row(index).data() + at,
                    .total09 = render.total09.data() + at,
                    .total10 = render.total10.data() + at,
                    .present = present + at,
                    .history = std::as_const(render.histories).row(index).data() + at,
                    .transient = std::as_const(render.transient_histories).row(index).data() + at,
                    .later = later.row(frame - first),
                    .history_total = render.history_total.data() + at,
                    .bass_fade = fade.data(),
                    .gate = render.gate.data() + at},
          open_from, columns);
    }
  }
}

}  // namespace verdel
