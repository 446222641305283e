#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

#include "allocation/onset_history.hpp"
#include "allocation/phases.hpp"
#include "signal/instruction_sets.hpp"

// Coherence compares nine frames of stem and residual in one bin, the stem up to 144 frames
// earlier. A tile is worked off in blocks of frames that stay in the near cache while all ten lags
// go over them, sixteen bins at a time.
namespace verdel::internal {
namespace {

constexpr std::size_t kLanes = 16;
constexpr std::size_t kBlockFrames = 48;
constexpr std::size_t kLags = C14_HISTORY_DELAYS.size() + 1;  // lag 0 and the delays
constexpr auto kWindow = static_cast<std::ptrdiff_t>(C14_COHERENCE_SMOOTH_FRAMES);
constexpr std::ptrdiff_t kReach = kWindow / 2;
constexpr std::ptrdiff_t kSupportReach = C14_SUPPORT_SMOOTH_FRAMES / 2;
constexpr auto kFloor = static_cast<float>(C14_POWER_FLOOR);
static_assert(kWindow == 9, "NineFrameSum adds three sums of three");
static_assert(C14_SUPPORT_EXPONENT == 0.75, "support is a root times a root of a root");

// The stem powers that the lags look back to.
constexpr std::size_t kPast = 256;
static_assert(kPast >= C14_HISTORY_DELAYS.back() + kBlockFrames && (kPast & (kPast - 1)) == 0);

// The sum of the last nine values of each lane, as three sums of three. It holds nothing of what
// has left the window, and it adds in the same order wherever the window stands: an interval's
// frames come out bit for bit as those of a render of the whole.
struct alignas(64) NineFrameSum {
  double value[2][kLanes];   // the last two values
  double triple[6][kLanes];  // the last six sums of three
};

// Where the ring slots of a moment are, the same for all sums.
struct Slots {
  std::size_t two_back, one_back, six_back, three_back;
  explicit Slots(std::size_t moment)
      : two_back(moment % 2),
        one_back((moment + 1) % 2),
        six_back(moment % 6),
        three_back((moment + 3) % 6) {}
};

VERDEL_INLINE void push(NineFrameSum& sum, const Slots& slots, const float* __restrict entering) {
  double* __restrict oldest = sum.value[slots.two_back];
  const double* __restrict newer = sum.value[slots.one_back];
  double* __restrict triple = sum.triple[slots.six_back];
  for (std::size_t b = 0; b < kLanes; ++b) {
    const double value = static_cast<double>(entering[b]);
    triple[b] = (oldest[b] + newer[b]) + value;
    oldest[b] = value;
  }
}

VERDEL_INLINE void push_and_average(NineFrameSum& sum, const Slots& slots,
                                    const float* __restrict entering, float* __restrict average) {
  double* __restrict oldest = sum.value[slots.two_back];
  const double* __restrict newer = sum.value[slots.one_back];
  double* __restrict first = sum.triple[slots.six_back];
  const double* __restrict second = sum.triple[slots.three_back];
  for (std::size_t b = 0; b < kLanes; ++b) {
    const double value = static_cast<double>(entering[b]);
    const double third = (oldest[b] + newer[b]) + value;
    oldest[b] = value;
    average[b] = static_cast<float>(((first[b] + second[b]) + third) * (1.0 / kWindow));
    first[b] = third;
  }
}

// A frame of sixteen bins of a spectrum: the real parts, and the imaginary ones `columns` behind.
VERDEL_INLINE void cross_products(const float* __restrict stem, const float* __restrict residual,
                                  std::size_t columns, float* __restrict real,
                                  float* __restrict imaginary) {
  const float* __restrict stem_i = stem + columns;
  const float* __restrict residual_i = residual + columns;
  for (std::size_t b = 0; b < kLanes; ++b) {
    real[b] = stem[b] * residual[b] + stem_i[b] * residual_i[b];
    imaginary[b] = stem_i[b] * residual[b] - stem[b] * residual_i[b];
  }
}

VERDEL_INLINE void squared_magnitudes(const float* __restrict spectrum, std::size_t columns,
                                      float* __restrict power) {
  const float* __restrict imaginary = spectrum + columns;
  for (std::size_t b = 0; b < kLanes; ++b) {
    power[b] = spectrum[b] * spectrum[b] + imaginary[b] * imaginary[b];
  }
}

// The square of the coherence; the root is never needed.
VERDEL_INLINE float coherence_squared(float cross_real, float cross_imaginary, float stem_power,
                                      float residual_power) {
  const float product = stem_power * residual_power;
  const float square = cross_real * cross_real + cross_imaginary * cross_imaginary;
  const float ratio = square / (product > kFloor ? product : kFloor);
  return ratio < 1.0F ? ratio : 1.0F;
}

// Averages of sixteen bins around one frame of the residual, and of the stem's frame that it is
// compared with.
struct Moment {
  alignas(64) float cross_real[kLanes];
  alignas(64) float cross_imaginary[kLanes];
  const float* stem_power;
  const float* residual_power;
};

VERDEL_INLINE void begin_scores(const Moment& now, const float* __restrict support,
                                float* __restrict lagged, float* __restrict persistent) {
  for (std::size_t b = 0; b < kLanes; ++b) {
    const float square = coherence_squared(now.cross_real[b], now.cross_imaginary[b],
                                           now.stem_power[b], now.residual_power[b]);
    lagged[b] = support[b] * (C14_COHERENCE_BASE + C14_COHERENCE_WEIGHT * square);
    persistent[b] = support[b] * (C14_PRESENT_BASE + C14_PRESENT_WEIGHT * square);
  }
}

VERDEL_INLINE void raise_scores(const Moment& then, float decay, const float* __restrict earlier,
                                const float* __restrict support, float* __restrict lagged,
                                float* __restrict persistent) {
  for (std::size_t b = 0; b < kLanes; ++b) {
    const float square = coherence_squared(then.cross_real[b], then.cross_imaginary[b],
                                           then.stem_power[b], then.residual_power[b]);
    const float quality = C14_COHERENCE_BASE + C14_COHERENCE_WEIGHT * square;
    const float lesser = support[b] < earlier[b] ? support[b] : earlier[b];
    const float past = (decay * earlier[b]) * quality;
    const float sustained = (decay * lesser) * quality;
    lagged[b] = lagged[b] > past ? lagged[b] : past;
    persistent[b] = persistent[b] > sustained ? persistent[b] : sustained;
  }
}

// One tile of one stem. Pointers are the tile's first frame; rows of spectra are 2 * columns long,
// the others columns.
struct ScoringTile {
  std::size_t frames, columns;
  const float* stem;
  const float* residual;
  const float* residual_power;
  float* support;
  float* lagged;
  float* persistent;
  std::array<std::size_t, kLags> delay;
  std::array<float, kLags> decay;

  // The same from a column on.
  VERDEL_INLINE ScoringTile from_column(std::size_t column) const {
    ScoringTile part = *this;
    part.stem += column;
    part.residual += column;
    part.residual_power += column;
    part.support += column;
    part.lagged += column;
    part.persistent += column;
    return part;
  }
};

// The sums of sixteen bins on their way through time.
struct CrossSums {
  NineFrameSum real, imaginary;
};
struct BinState {
  NineFrameSum power;
  CrossSums cross[kLags];
  alignas(64) float support_power[C14_SUPPORT_SMOOTH_FRAMES][kLanes];  // ring of squared magnitudes
  alignas(64) float stem_power[kPast][kLanes];                         // ring of smoothed powers
};
struct TileState {
  BinState bins[CellGrid::kTileBins / kLanes];
};

struct FrameRange {
  std::size_t first, stop;
};

VERDEL_INLINE std::size_t clamp_frame(std::ptrdiff_t frame, std::size_t frames) {
  const auto last = static_cast<std::ptrdiff_t>(frames) - 1;
  return static_cast<std::size_t>(frame < 0 ? 0 : frame > last ? last : frame);
}

// A value for frame u enters the windows at moment u + kReach.
VERDEL_INLINE Slots slots_of(std::ptrdiff_t frame) {
  return Slots(static_cast<std::size_t>(frame + kReach));
}

VERDEL_INLINE void stem_power_at(const ScoringTile& tile, std::ptrdiff_t frame, float* power) {
  squared_magnitudes(tile.stem + clamp_frame(frame, tile.frames) * 2 * tile.columns, tile.columns,
                     power);
}

// Fills the windows of the stem's power up to just before frame 0.
VERDEL_INLINE void prime_powers(const ScoringTile& tile, BinState& state) {
  alignas(64) float power[kLanes];
  for (std::ptrdiff_t frame = -kReach; frame < kReach; ++frame) {
    stem_power_at(tile, frame, power);
    push(state.power, slots_of(frame), power);
  }
  for (std::ptrdiff_t frame = -kSupportReach; frame < kSupportReach; ++frame) {
    stem_power_at(tile, frame, state.support_power[frame + kSupportReach]);
  }
}

// The products of a lag: the stem's bins with the residual's of `delay` frames later. Beyond the
// frames that have a partner the end's product stands. Fills the windows up to just before the
// lag's first frame.
VERDEL_INLINE void prime_lag(const ScoringTile& tile, std::size_t delay, CrossSums& sums) {
  alignas(64) float real[kLanes];
  alignas(64) float imaginary[kLanes];
  const std::size_t row = 2 * tile.columns;
  for (std::ptrdiff_t u = -kReach; u < kReach; ++u) {
    const std::size_t frame = clamp_frame(u, tile.frames - delay);
    const Slots slots = slots_of(u + static_cast<std::ptrdiff_t>(delay));
    cross_products(tile.stem + frame * row, tile.residual + (frame + delay) * row, tile.columns,
                   real, imaginary);
    push(sums.real, slots, real);
    push(sums.imaginary, slots, imaginary);
  }
}

VERDEL_INLINE void smooth_support(const BinState& state, std::size_t newest,
                                  float* __restrict support) {
  // From the oldest on, so that the order of addition goes with the window, not with the ring.
  const float* row[C14_SUPPORT_SMOOTH_FRAMES];
  for (std::size_t i = 0; i < C14_SUPPORT_SMOOTH_FRAMES; ++i) {
    row[i] = state.support_power[(newest + 1 + i) % C14_SUPPORT_SMOOTH_FRAMES];
  }
  for (std::size_t b = 0; b < kLanes; ++b) {
    double sum = 0.0;
    for (const float* value : row) sum += static_cast<double>(value[b]);
    float power = static_cast<float>(sum * (1.0 / C14_SUPPORT_SMOOTH_FRAMES));
    power = power > kFloor ? power : kFloor;
    const float root = std::sqrt(power);
    support[b] = root * std::sqrt(root);
  }
}

// The stem's smoothed power and its support in the frames of the block.
VERDEL_INLINE void score_support(const ScoringTile& tile, FrameRange block, BinState& state) {
  alignas(64) float power[kLanes];
  for (std::size_t t = block.first; t < block.stop; ++t) {
    const auto now = static_cast<std::ptrdiff_t>(t);
    stem_power_at(tile, now + kReach, power);
    push_and_average(state.power, slots_of(now + kReach), power, state.stem_power[t % kPast]);
    const std::size_t newest = (t + 2 * kSupportReach) % C14_SUPPORT_SMOOTH_FRAMES;
    stem_power_at(tile, now + kSupportReach, state.support_power[newest]);
    smooth_support(state, newest, tile.support + t * tile.columns);
  }
}

// What the stem of `delay` frames ago claims of the frames of the block. Lag 0 begins the scores,
// each further one can only raise them.
VERDEL_INLINE void score_lag(const ScoringTile& tile, std::size_t lag, FrameRange block,
                             BinState& state) {
  const std::size_t delay = tile.delay[lag], columns = tile.columns;
  if (block.stop <= delay) return;
  CrossSums& sums = state.cross[lag];
  if (block.first <= delay) prime_lag(tile, delay, sums);
  alignas(64) float real[kLanes];
  alignas(64) float imaginary[kLanes];
  Moment moment;
  for (std::size_t t = std::max(block.first, delay); t < block.stop; ++t) {
    const std::size_t entering = std::min(t + std::size_t{kReach}, tile.frames - 1);
    const Slots slots(t + 2 * std::size_t{kReach});
    cross_products(tile.stem + (entering - delay) * 2 * columns,
                   tile.residual + entering * 2 * columns, columns, real, imaginary);
    push_and_average(sums.real, slots, real, moment.cross_real);
    push_and_average(sums.imaginary, slots, imaginary, moment.cross_imaginary);
    const std::size_t earlier = t - delay, at = t * columns;
    moment.stem_power = state.stem_power[earlier % kPast];
    moment.residual_power = tile.residual_power + at;
    if (lag == 0) {
      begin_scores(moment, tile.support + at, tile.lagged + at, tile.persistent + at);
    } else {
      raise_scores(moment, tile.decay[lag], tile.support + earlier * columns, tile.support + at,
                   tile.lagged + at, tile.persistent + at);
    }
  }
}

VERDEL_INLINE void score_tile(const ScoringTile& tile, TileState& state) {
  for (std::size_t first = 0; first < tile.frames; first += kBlockFrames) {
    const FrameRange block = {first, std::min(first + kBlockFrames, tile.frames)};
    for (std::size_t column = 0; column < tile.columns; column += kLanes) {
      const ScoringTile part = tile.from_column(column);
      BinState& bins = state.bins[column / kLanes];
      if (first == 0) prime_powers(part, bins);
      score_support(part, block, bins);
      for (std::size_t lag = 0; lag < kLags; ++lag) score_lag(part, lag, block, bins);
    }
  }
}

VERDEL_INLINE void smooth_power_tile(const float* spectrum, std::size_t frames, std::size_t columns,
                                     float* smoothed) {
  alignas(64) float power[kLanes];
  NineFrameSum sum{};
  ScoringTile tile{};
  tile.frames = frames;
  tile.columns = columns;
  for (std::size_t column = 0; column < columns; column += kLanes) {
    tile.stem = spectrum + column;
    for (std::ptrdiff_t frame = -kReach; frame < kReach; ++frame) {
      stem_power_at(tile, frame, power);
      push(sum, slots_of(frame), power);
    }
    for (std::size_t t = 0; t < frames; ++t) {
      const std::ptrdiff_t entering = static_cast<std::ptrdiff_t>(t) + kReach;
      stem_power_at(tile, entering, power);
      push_and_average(sum, slots_of(entering), power, smoothed + t * columns + column);
    }
  }
}

}  // namespace

void smooth_power(const CellGrid& grid, std::size_t tile, const float* spectrum, float* power) {
  run_kernel<smooth_power_tile>(spectrum + 2 * grid.offset(tile, 0), grid.frames(),
                                CellGrid::columns(tile), power + grid.offset(tile, 0));
}

void score_source(ChannelRender& render, std::size_t index, std::span<float> spectrum) {
  const CellGrid& grid = render.grid;
  for (auto* scores : {&render.support_scores, &render.scores09, &render.scores10}) {
    scores->fetch_row(index);
  }
  _c14_transform(render.transform, render.job.source_models[index], grid, spectrum, render.stop);
  ScoringTile tile{};
  tile.frames = grid.frames();
  const HistoryDecays decays = history_decays(render.job.sr);
  for (std::size_t lag = 1; lag < kLags; ++lag) {
    tile.delay[lag] = C14_HISTORY_DELAYS[lag - 1];
    tile.decay[lag] = static_cast<float>(decays[lag - 1]);
  }
  const auto state = std::make_unique<TileState>();
  for (std::size_t t = 0; t < CellGrid::kTiles; ++t) {
    render.stop.check();
    const std::size_t offset = grid.offset(t, 0);
    tile.columns = CellGrid::columns(t);
    tile.stem = spectrum.data() + 2 * offset;
    tile.residual = render.residual_spectrum.data() + 2 * offset;
    tile.residual_power = render.residual_power.data() + offset;
    tile.support = render.support_scores.row(index).data() + offset;
    tile.lagged = render.scores09.row(index).data() + offset;
    tile.persistent = render.scores10.row(index).data() + offset;
    run_kernel<score_tile>(tile, *state);
  }
}

}  // namespace verdel::internal
