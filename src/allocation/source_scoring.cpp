#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

#include "allocation/onset_history.hpp"
#include "allocation/phases.hpp"
#include "signal/multiversion.hpp"

// Coherence compares nine frames of stem and residual in one bin, the stem up to 144 frames
// earlier. A tile's bins are taken sixteen at a time, and all ten lags of those run through time
// together: their window sums then stay in the nearest cache, and each frame is loaded once from
// the one behind it.
namespace verdel {
namespace {

constexpr std::size_t kLanes = 16;
constexpr std::size_t kLags = C14_HISTORY_DELAYS.size() + 1;  // lag 0 and the delays
constexpr auto kWindow = static_cast<std::ptrdiff_t>(C14_COHERENCE_SMOOTH_FRAMES);
constexpr std::ptrdiff_t kReach = kWindow / 2;
constexpr std::ptrdiff_t kSupportReach = C14_SUPPORT_SMOOTH_FRAMES / 2;
constexpr auto kFloor = static_cast<float>(C14_POWER_FLOOR);
static_assert(kWindow == 9, "NineFrameSum adds three sums of three");
static_assert(C14_SUPPORT_EXPONENT == 0.75, "support is a root times a root of a root");

// The past that a column must keep in reach: stem powers of the last kPast frames.
constexpr std::size_t kPast = 256;
static_assert(kPast > C14_HISTORY_DELAYS.back() && (kPast & (kPast - 1)) == 0);

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

// One row of a column at one moment.
struct Moment {
  const float* cross_real;
  const float* cross_imaginary;
  const float* stem_power;
  const float* residual_power;
};

VERDEL_INLINE void present_scores(const Moment& now, const float* __restrict support,
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
};

// The state of sixteen bins on their way through time.
struct alignas(64) ScoringColumn {
  float support_power[C14_SUPPORT_SMOOTH_FRAMES][kLanes];  // ring of squared magnitudes
  NineFrameSum power;
  NineFrameSum cross_real[kLags], cross_imaginary[kLags];
  float stem_power[kPast][kLanes];  // ring of smoothed powers
};

VERDEL_INLINE std::size_t clamp_frame(std::ptrdiff_t frame, std::size_t frames) {
  const auto last = static_cast<std::ptrdiff_t>(frames) - 1;
  return static_cast<std::size_t>(frame < 0 ? 0 : frame > last ? last : frame);
}

// The stem's products with the residual `delay` frames later, at stem frame u; beyond the ends of
// the frames that have a partner the end's product stands.
VERDEL_INLINE void delayed_products(const ScoringTile& tile, std::size_t column, std::size_t delay,
                                    std::ptrdiff_t u, float* real, float* imaginary) {
  const std::size_t frame = clamp_frame(u, tile.frames - delay);
  const std::size_t row = 2 * tile.columns;
  cross_products(tile.stem + frame * row + column, tile.residual + (frame + delay) * row + column,
                 tile.columns, real, imaginary);
}

// Fills the windows of a lag up to just before its first frame, stem frame 0 at moment `first`.
VERDEL_INLINE void prime_lag(const ScoringTile& tile, std::size_t column, std::size_t lag,
                             std::size_t first, ScoringColumn& state) {
  alignas(64) float real[kLanes];
  alignas(64) float imaginary[kLanes];
  for (std::ptrdiff_t u = -kReach; u < kReach; ++u) {
    const Slots slots(first + static_cast<std::size_t>(kReach + u));
    delayed_products(tile, column, tile.delay[lag], u, real, imaginary);
    push(state.cross_real[lag], slots, real);
    push(state.cross_imaginary[lag], slots, imaginary);
  }
}

VERDEL_INLINE void prime_powers(const ScoringTile& tile, std::size_t column, ScoringColumn& state) {
  alignas(64) float power[kLanes];
  for (std::ptrdiff_t u = -kReach; u < kReach; ++u) {
    const float* frame = tile.stem + clamp_frame(u, tile.frames) * 2 * tile.columns + column;
    squared_magnitudes(frame, tile.columns, power);
    push(state.power, Slots(static_cast<std::size_t>(kReach + u)), power);
    // The shorter window of the support holds frames -2 .. 1 before frame 2 enters at moment 0.
    if (u >= -kSupportReach && u < kSupportReach) {
      std::copy_n(power, kLanes, state.support_power[static_cast<std::size_t>(u + kSupportReach)]);
    }
  }
}

VERDEL_INLINE void smooth_support(const ScoringColumn& state, std::size_t newest,
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

VERDEL_INLINE void score_column(const ScoringTile& tile, std::size_t column, ScoringColumn& state) {
  alignas(64) float power[kLanes];
  alignas(64) float real[kLanes];
  alignas(64) float imaginary[kLanes];
  alignas(64) float average_real[kLanes];
  alignas(64) float average_imaginary[kLanes];
  alignas(64) float lagged[kLanes];
  alignas(64) float persistent[kLanes];
  prime_powers(tile, column, state);
  for (std::size_t t = 0; t < tile.frames; ++t) {
    // A lag's first frame enters eight moments after the first one that it was primed with.
    const Slots slots(t + static_cast<std::size_t>(kWindow) - 1);
    const auto now = static_cast<std::ptrdiff_t>(t);
    const std::size_t at = t * tile.columns + column;

    const std::size_t ahead = clamp_frame(now + kSupportReach, tile.frames);
    const std::size_t newest = (t + 2 * kSupportReach) % C14_SUPPORT_SMOOTH_FRAMES;
    squared_magnitudes(tile.stem + ahead * 2 * tile.columns + column, tile.columns,
                       state.support_power[newest]);
    float* support = tile.support + at;
    smooth_support(state, newest, support);

    const std::size_t entering = clamp_frame(now + kReach, tile.frames);
    squared_magnitudes(tile.stem + entering * 2 * tile.columns + column, tile.columns, power);
    push_and_average(state.power, slots, power, state.stem_power[t % kPast]);

    for (std::size_t lag = 0; lag < kLags && tile.delay[lag] <= t; ++lag) {
      const std::size_t earlier = t - tile.delay[lag];
      if (earlier == 0) {
        prime_lag(tile, column, lag, t, state);
      }
      delayed_products(tile, column, tile.delay[lag], static_cast<std::ptrdiff_t>(earlier) + kReach,
                       real, imaginary);
      push_and_average(state.cross_real[lag], slots, real, average_real);
      push_and_average(state.cross_imaginary[lag], slots, imaginary, average_imaginary);
      const Moment moment{.cross_real = average_real,
                          .cross_imaginary = average_imaginary,
                          .stem_power = state.stem_power[earlier % kPast],
                          .residual_power = tile.residual_power + at};
      if (lag == 0) {
        present_scores(moment, support, lagged, persistent);
      } else {
        raise_scores(moment, tile.decay[lag], tile.support + earlier * tile.columns + column,
                     support, lagged, persistent);
      }
    }
    std::copy_n(lagged, kLanes, tile.lagged + at);
    std::copy_n(persistent, kLanes, tile.persistent + at);
  }
}

VERDEL_MULTIVERSION
void score_tile(const ScoringTile& tile, ScoringColumn& state) {
  for (std::size_t column = 0; column < tile.columns; column += kLanes) {
    score_column(tile, column, state);
  }
}

VERDEL_MULTIVERSION
void smooth_power_tile(const float* spectrum, std::size_t frames, std::size_t columns,
                       float* smoothed) {
  alignas(64) float power[kLanes];
  NineFrameSum sum{};
  for (std::size_t column = 0; column < columns; column += kLanes) {
    const auto power_at = [&](std::ptrdiff_t frame) {
      squared_magnitudes(spectrum + clamp_frame(frame, frames) * 2 * columns + column, columns,
                         power);
    };
    for (std::ptrdiff_t u = -kReach; u < kReach; ++u) {
      power_at(u);
      push(sum, Slots(static_cast<std::size_t>(kReach + u)), power);
    }
    for (std::size_t t = 0; t < frames; ++t) {
      power_at(static_cast<std::ptrdiff_t>(t) + kReach);
      push_and_average(sum, Slots(t + static_cast<std::size_t>(kWindow) - 1), power,
                       smoothed + t * columns + column);
    }
  }
}

}  // namespace

void smooth_power(const CellGrid& grid, std::size_t tile, const float* spectrum, float* power) {
  smooth_power_tile(spectrum + 2 * grid.offset(tile, 0), grid.frames(), CellGrid::columns(tile),
                    power + grid.offset(tile, 0));
}

void score_source(ChannelRender& render, std::size_t index, std::span<float> spectrum) {
  const CellGrid& grid = render.grid;
  for (auto* scores : {&render.support_scores, &render.scores09, &render.scores10}) {
    scores->fetch_row(index);
  }
  _c14_transform(render.transform, render.job.source_models[index], grid, spectrum, render.stop);
  ScoringTile tile{};
  tile.frames = grid.frames();
  for (std::size_t lag = 1; lag < kLags; ++lag) {
    tile.delay[lag] = C14_HISTORY_DELAYS[lag - 1];
    tile.decay[lag] = static_cast<float>(history_decay(tile.delay[lag], render.job.sr));
  }
  const auto state = std::make_unique<ScoringColumn>();
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
    score_tile(tile, *state);
  }
}

}  // namespace verdel
