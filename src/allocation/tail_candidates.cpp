#include "allocation/tail_candidates.hpp"

#include <algorithm>

#include "allocation/gate_step.hpp"
#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kLanes = Tile::kBins, kDelays = C14_HISTORY_DELAYS.size();
constexpr auto kFloor = static_cast<float>(C14_POWER_FLOOR);

// Edges a little wider than the tests', so that rounding cannot say no where a test says yes. What
// passes none of them in any bin is not looked at further: hardly any stretch of music passes all.
constexpr float kDecayed = 1.989F, kStruck = 0.1899F, kDominant = 0.589F, kGone = 0.911F;
static_assert(static_cast<float>(C14_TAIL_RATIO_LOW) > kDecayed &&
              static_cast<float>(C14_DOMINANCE_LOW) > kDominant &&
              static_cast<float>(C14_TRANSIENT_SHARE_LOW) > kStruck &&
              static_cast<float>(C14_LATER_RATIO_HIGH) < kGone);

VERDEL_INLINE float larger(float a, float b) {
  return a > b ? a : b;
}

VERDEL_INLINE float floored(float value) {
  return larger(value, kFloor);
}

// Values in sixteen neighbouring bins.
struct Lanes {
  alignas(64) float value[kLanes];
};

// peak = max(peak, weight * values)
VERDEL_INLINE void raise(const float* __restrict values, float weight, Lanes& peak) {
  for (std::size_t b = 0; b < kLanes; ++b) {
    const float faded = weight * values[b];
    peak.value[b] = larger(peak.value[b], faded);
  }
}

// The strongest faded past: over the delays of the history, or those of an onset alone.
VERDEL_INLINE Lanes strongest_past(const float* support, std::size_t frame,
                                   const PastOnsets& pasts) {
  Lanes peak{};
  for (std::size_t i = 0; i < pasts.count; ++i) {
    raise(support + CellRing::offset(frame - pasts.past[i].delay), pasts.past[i].weight, peak);
  }
  return peak;
}

VERDEL_INLINE bool exceeds(const float* __restrict a, const float* __restrict b, float factor) {
  int any = 0;
  for (std::size_t i = 0; i < kLanes; ++i) any |= static_cast<int>(a[i] > b[i] * factor);
  return any != 0;
}

// What is known of a stem's sixteen bins while they are tested.
struct Tested {
  const float* present;
  Lanes transient;
  const float* history;
  Lanes total;  // of all stems' histories
  Lanes later;
};

VERDEL_INLINE bool was_struck_and_decayed(const Tested& cells) {
  int any = 0;
  for (std::size_t b = 0; b < kLanes; ++b) {
    any |= static_cast<int>(cells.history[b] > cells.present[b] * kDecayed) &
           static_cast<int>(cells.transient.value[b] > cells.history[b] * kStruck);
  }
  return any != 0;
}

// Whether a bin passes every test so far; `later` may be of the first frames only.
VERDEL_INLINE bool may_open(const Tested& cells) {
  int any = 0;
  for (std::size_t b = 0; b < kLanes; ++b) {
    const float history = cells.history[b];
    any |= static_cast<int>(history > cells.present[b] * kDecayed) &
           static_cast<int>(cells.transient.value[b] > history * kStruck) &
           static_cast<int>(history > cells.total.value[b] * kDominant) &
           static_cast<int>(history * kGone > cells.later.value[b]);
  }
  return any != 0;
}

VERDEL_INLINE bool add_and_test(const float* __restrict history, Tested& cells) {
  for (std::size_t b = 0; b < kLanes; ++b) cells.total.value[b] += history[b];
  return may_open(cells);
}

// Frames looked ahead at a time: their maxima need not wait for each other's way through memory.
constexpr std::size_t kStretch = 8;

VERDEL_INLINE void raise_by_stretch(const float* support, std::size_t first, Lanes& peak) {
  const float* rows[kStretch];
  for (std::size_t k = 0; k < kStretch; ++k) rows[k] = support + CellRing::offset(first + k);
  VERDEL_INDEPENDENT
  for (std::size_t b = 0; b < kLanes; ++b) {
    float largest = peak.value[b];
    for (std::size_t k = 0; k < kStretch; ++k) largest = larger(largest, rows[k][b]);
    peak.value[b] = largest;
  }
}

// The strongest value of the next frames, the frame itself excluded; false as soon as no bin can
// open any more.
VERDEL_INLINE bool stays_gone(const float* support, std::size_t frame, std::size_t stop,
                              Tested& cells) {
  std::size_t t = frame + 1;
  for (; t + kStretch <= stop; t += kStretch) {
    raise_by_stretch(support, t, cells.later);
    if (!may_open(cells)) return false;
  }
  for (; t < stop; ++t) raise(support + CellRing::offset(t), 1.0F, cells.later);
  return may_open(cells);
}

// The product of the tests; whether it is above zero in any of the first `bins`.
VERDEL_INLINE bool open(const Tested& cells, const float* fade, std::size_t bins, float* gate) {
  VERDEL_INDEPENDENT
  for (std::size_t b = 0; b < kLanes; ++b) {
    const float history = cells.history[b], inverse = 1.0F / floored(history);
    const float tail =
        gate_step<C14_TAIL_RATIO_LOW, C14_TAIL_RATIO_HIGH>(history / floored(cells.present[b]));
    const float release =
        1.0F - gate_step<C14_LATER_RATIO_LOW, C14_LATER_RATIO_HIGH>(cells.later.value[b] * inverse);
    const float dominance =
        gate_step<C14_DOMINANCE_LOW, C14_DOMINANCE_HIGH>(history / floored(cells.total.value[b]));
    const float struck = gate_step<C14_TRANSIENT_SHARE_LOW, C14_TRANSIENT_SHARE_HIGH>(
        cells.transient.value[b] * inverse);
    gate[b] = (((tail * release) * dominance) * struck) * fade[b];
  }
  bool any = false;
  for (std::size_t b = 0; b < bins; ++b) any = any || gate[b] > 0.0F;
  return any;
}

VERDEL_INLINE bool test_cells(const float* support, std::size_t frame, std::size_t stop,
                              const float* fade, std::size_t bins, Tested& cells, float* gate) {
  return stays_gone(support, frame, stop, cells) && open(cells, fade, bins, gate);
}

// Over all delays at once. Where the signal had not begun yet, the past is nothing.
VERDEL_INLINE void make_history(const float* support, std::size_t frame,
                                const HistoryDecays& decays, float* __restrict history) {
  const float* rows[kDelays];
  float weights[kDelays];
  for (std::size_t i = 0; i < kDelays; ++i) {
    const bool exists = C14_HISTORY_DELAYS[i] <= frame;
    rows[i] = support + CellRing::offset(exists ? frame - C14_HISTORY_DELAYS[i] : frame);
    weights[i] = exists ? decays[i] : 0.0F;
  }
  VERDEL_INDEPENDENT
  for (std::size_t b = 0; b < kLanes; ++b) {
    float peak = 0.0F;
    for (std::size_t i = 0; i < kDelays; ++i) peak = larger(peak, weights[i] * rows[i][b]);
    history[b] = peak;
  }
}

VERDEL_INLINE void add(const float* __restrict values, Lanes& sum) {
  for (std::size_t b = 0; b < kLanes; ++b) sum.value[b] += values[b];
}

}  // namespace

TailCandidates::TailCandidates(const CellRing& support, const StemOnsets& onsets, std::size_t stems,
                               std::size_t frames, int sr)
    : support_(support),
      onsets_(onsets),
      stems_(stems),
      frames_(frames),
      decays_(history_decays(sr)),
      histories_(Array2D<float>::zeros(stems, kLanes)),
      has_history_(stems, 0),
      found_(kMostFrames) {
  const double spacing = (sr / 2.0) / static_cast<double>(C14_BINS - 1);
  for (std::size_t bin = 0; bin < Tile::kRow; ++bin) {
    bass_fade_.push_back(static_cast<float>(_c14_smoothstep(
        static_cast<double>(bin) * spacing, C14_BASS_FADE_LOW_HZ, C14_BASS_FADE_HIGH_HZ)));
  }
  // Bins at or below the fade's lower edge never open; whole tiles of them are skipped.
  while (first_tile_ < Tile::kCount && bass_fade_[(first_tile_ + 1) * kLanes - 1] == 0.0F) {
    ++first_tile_;
  }
}

void TailCandidates::find(const Block& block) {
  assert(block.length() <= kMostFrames);
  block_ = block;
  pasts_.clear();
  is_behind_.assign(block.length(), 0);
  for (std::size_t t = block.first; t < block.stop; ++t) {
    found_[t - block.first].clear();
    for (std::size_t stem = 0; stem < stems_; ++stem) {
      pasts_.push_back(onsets_.before(stem, t));
      if (pasts_.back().count > 0) is_behind_[t - block.first] = 1;
    }
  }
  for (std::size_t tile = first_tile_; tile < Tile::kCount; ++tile) find_in_tile(tile);
}

void TailCandidates::find_in_tile(std::size_t tile) {
  const std::size_t bins = tile + 1 < Tile::kCount ? kLanes : 1;
  for (std::size_t t = block_.first; t < block_.stop; ++t) {
    if (tile + 1 < Tile::kCount) bring_near(tile + 1, t);
    if (is_behind_[t - block_.first] == 0) continue;
    std::ranges::fill(has_history_, 0);
    const auto history = [&](std::size_t stem) {
      float* values = histories_.row(stem).data();
      if (has_history_[stem] == 0) {
        run_kernel<make_history>(support_.tile(stem, tile), t, decays_, values);
      }
      has_history_[stem] = 1;
      return values;
    };
    for (std::size_t stem = 0; stem < stems_; ++stem) {
      const PastOnsets& pasts = pasts_[(t - block_.first) * stems_ + stem];
      if (pasts.count == 0) continue;
      const float* support = support_.tile(stem, tile);
      Tested cells{.present = support + CellRing::offset(t),
                   .transient = run_kernel<strongest_past>(support, t, pasts),
                   .history = nullptr,
                   .total = {},
                   .later = {}};
      // A history that is not decayed cannot hide a transient this small.
      if (!run_kernel<exceeds>(cells.transient.value, cells.present, kDecayed * kStruck)) continue;
      cells.history = history(stem);
      if (!run_kernel<was_struck_and_decayed>(cells)) continue;
      run_kernel<add>(cells.history, cells.total);
      bool dominant = true;  // of the stems so far
      for (std::size_t other = 0; other < stems_ && dominant; ++other) {
        if (other == stem) continue;
        dominant = run_kernel<add_and_test>(history(other), cells);
      }
      if (!dominant) continue;
      TailCandidate candidate{.stem = stem, .tile = tile, .gate = {}};
      if (run_kernel<test_cells>(support, t, std::min(t + kAhead + 1, frames_),
                                 bass_fade_.data() + tile * kLanes, bins, cells, candidate.gate)) {
        found_[t - block_.first].push_back(candidate);
      }
    }
  }
}

/// Spreads the next tile's rows over the frames of this one.
void TailCandidates::bring_near(std::size_t tile, std::size_t frame) const {
  const std::size_t rows = block_.length() + kAhead + kBack;
  const std::size_t row = frame - block_.first;
  const std::size_t from = row * rows / block_.length(), to = (row + 1) * rows / block_.length();
  for (std::size_t stem = 0; stem < stems_; ++stem) {
    const float* support = support_.tile(stem, tile);
    for (std::size_t i = from; i < to; ++i) {
      __builtin_prefetch(support + CellRing::offset(block_.first + kRingFrames + i - kBack), 0, 2);
    }
  }
}

}  // namespace verdel::internal
