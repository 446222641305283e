#include <algorithm>
#include <array>
#include <memory>
#include <vector>

#include "allocation/onset_history.hpp"
#include "allocation/phases.hpp"
#include "signal/instruction_sets.hpp"

namespace verdel::internal {
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

std::array<double, CellGrid::kTileBins> bass_fade_of(std::size_t tile, int sr) {
  std::array<double, CellGrid::kTileBins> fade{};
  const double spacing = (sr / 2.0) / static_cast<double>(C14_BINS - 1);
  for (std::size_t b = 0; b < fade.size(); ++b) {
    const double frequency = static_cast<double>(CellGrid::first_bin(tile) + b) * spacing;
    fade[b] = _c14_smoothstep(frequency, C14_BASS_FADE_LOW_HZ, C14_BASS_FADE_HIGH_HZ);
  }
  return fade;
}

/// The pasts of all stems in one tile, for a block of frames: how strong a stem was, and how much
/// of that came from onsets. A block at a time stays in the near cache; over a whole render they
/// would be two of five arrays as large as the spectrum.
class BlockHistories {
 public:
  static constexpr std::size_t kBlock = LaterMaximum::kBlock;

  BlockHistories(const ChannelRender& render, std::size_t tile)
      : render_(render),
        tile_(tile),
        decays_(history_decays(render.job.sr)),
        histories_(Rows::uninitialised(render.stems() * kBlock, CellGrid::kTileBins)),
        transients_(Rows::uninitialised(render.stems() * kBlock, CellGrid::kTileBins)) {}

  /// The pasts of the frames first .. stop - 1, where any stem needs them.
  void load(std::size_t first, std::size_t stop);

  const float* history(std::size_t index, std::size_t frame_of_block) const {
    return histories_.row(index * kBlock + frame_of_block).data();
  }
  /// From onsets alone.
  const float* transient(std::size_t index, std::size_t frame_of_block) const {
    return transients_.row(index * kBlock + frame_of_block).data();
  }
  /// The sum over the stems.
  const double* total(std::size_t frame_of_block) const { return totals_[frame_of_block].data(); }

 private:
  using Rows = Array2D<float>;

  const ChannelRender& render_;
  std::size_t tile_;
  HistoryDecays decays_;
  Rows histories_, transients_;  // [stems * kBlock][columns]
  std::array<std::array<double, CellGrid::kTileBins>, kBlock> totals_{};
};

void BlockHistories::load(std::size_t first, std::size_t stop) {
  const std::size_t columns = CellGrid::columns(tile_);
  for (auto& total : totals_) total.fill(0.0);
  for (std::size_t index = 0; index < render_.stems(); ++index) {
    const float* present =
        std::as_const(render_.support_scores).row(index).data() + render_.grid.offset(tile_, 0);
    for (std::size_t frame = first; frame < stop; ++frame) {
      if (render_.behind_any_onset[frame] == 0) continue;
      const std::size_t row = index * kBlock + frame - first;
      float* history = histories_.row(row).data();
      _c14_history(present, render_.onsets.row(index), columns, decays_, frame, history,
                   transients_.row(row).data());
      for (std::size_t b = 0; b < columns; ++b) {
        totals_[frame - first][b] += static_cast<double>(history[b]);
      }
    }
  }
}

bool any_marked(std::span<const char> frames, std::size_t first, std::size_t stop) {
  const auto block = frames.subspan(first, stop - first);
  return std::find(block.begin(), block.end(), 1) != block.end();
}

/// The gate of one tile, opened by one block of frames after another.
class TileGate {
 public:
  static constexpr std::size_t kBlock = LaterMaximum::kBlock;

  TileGate(ChannelRender& render, std::size_t tile);
  /// Whether the bass fade lets any bin of the tile open.
  bool can_open() const { return open_from_ < columns_; }
  void raise_block(std::size_t first);

 private:
  /// By one stem, in the frames that its onsets reach; the block's pasts are loaded.
  void raise_for_stem(std::size_t index, std::size_t first, std::size_t stop);

  ChannelRender& render_;
  std::size_t tile_, columns_;
  std::array<double, CellGrid::kTileBins> fade_;
  std::size_t open_from_ = 0;  // the first column that can open
  BlockHistories histories_;
  LaterMaximum later_;
};

TileGate::TileGate(ChannelRender& render, std::size_t tile)
    : render_(render),
      tile_(tile),
      columns_(CellGrid::columns(tile)),
      fade_(bass_fade_of(tile, render.job.sr)),
      histories_(render, tile) {
  while (can_open() && fade_[open_from_ + kStretch - 1] == 0.0) open_from_ += kStretch;
}

void TileGate::raise_block(std::size_t first) {
  const std::size_t stop = std::min(first + kBlock, render_.grid.frames());
  if (!any_marked(render_.behind_any_onset, first, stop)) return;
  histories_.load(first, stop);
  for (std::size_t index = 0; index < render_.stems(); ++index) {
    if (!any_marked(std::as_const(render_.behind_onsets).row(index), first, stop)) continue;
    raise_for_stem(index, first, stop);
  }
}

void TileGate::raise_for_stem(std::size_t index, std::size_t first, std::size_t stop) {
  const CellGrid& grid = render_.grid;
  const auto behind = render_.behind_onsets.row(index);
  const float* present = std::as_const(render_.support_scores).row(index).data();
  later_.load(present + grid.offset(tile_, 0), grid.frames(), columns_, first);
  for (std::size_t frame = first; frame < stop; ++frame) {
    if (behind[frame] == 0) continue;
    const std::size_t at = grid.offset(tile_, frame);
    run_kernel<gate_frame>(
        GateFrame{.scores09 = std::as_const(render_.scores09).row(index).data() + at,
                  .scores10 = std::as_const(render_.scores10).row(index).data() + at,
                  .total09 = render_.total09.data() + at,
                  .total10 = render_.total10.data() + at,
                  .present = present + at,
                  .history = histories_.history(index, frame - first),
                  .transient = histories_.transient(index, frame - first),
                  .later = later_.row(frame - first),
                  .history_total = histories_.total(frame - first),
                  .bass_fade = fade_.data(),
                  .gate = render_.gate.data() + at},
        open_from_, columns_);
  }
}

}  // namespace

void build_gate(ChannelRender& render, std::size_t tile) {
  // Too large for the stack of a host's thread.
  const auto gate = std::make_unique<TileGate>(render, tile);
  if (!gate->can_open()) return;
  for (std::size_t first = 0; first < render.grid.frames(); first += TileGate::kBlock) {
    gate->raise_block(first);
  }
}

}  // namespace verdel::internal
