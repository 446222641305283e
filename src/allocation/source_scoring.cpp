#include "allocation/source_scoring.hpp"

#include <algorithm>
#include <cmath>

#include "signal/instruction_sets.hpp"

// Coherence compares nine frames of stem and residual in one bin, the stem up to 144 frames
// earlier. Sums over nine frames are three sums of three: they hold exactly their window and add in
// the same order wherever it stands, so that a frame comes out bit for bit the same whichever block
// it falls into and wherever the render began.
namespace verdel::internal {
namespace {

constexpr std::size_t kLanes = Tile::kBins;
constexpr std::size_t kLags = C14_HISTORY_DELAYS.size() + 1;  // lag 0 and the delays
constexpr std::size_t kWindow = C14_COHERENCE_SMOOTH_FRAMES;
constexpr std::size_t kReach = kWindow / 2, kSupportReach = C14_SUPPORT_SMOOTH_FRAMES / 2;
constexpr auto kFloor = static_cast<float>(C14_POWER_FLOOR);
constexpr float kLeastPower = 1e-37F;  // whose inverse a float still holds
static_assert(kWindow == 9, "three sums of three");
static_assert(C14_SUPPORT_SMOOTH_FRAMES == 5, "written out");
static_assert(C14_SUPPORT_EXPONENT == 0.75, "support is a root times a root of a root");

// One row and tile in the rings, from their first frame.
struct Spectrum {
  const float* ring;
  std::size_t frames;  // of the signal

  // Beyond the signal the nearest frame stands.
  VERDEL_INLINE const float* at(std::ptrdiff_t frame) const {
    const auto last = static_cast<std::ptrdiff_t>(frames) - 1;
    const auto nearest = static_cast<std::size_t>(frame < 0 ? 0 : frame > last ? last : frame);
    return ring + SpectrumRing::offset(nearest);
  }
};

// The powers of a block's frames, and of kReach before and behind.
struct BlockPowers {
  static constexpr std::size_t kRows = Block::kFrames + 2 * kReach;
  alignas(64) float value[kRows * kLanes];
  alignas(64) float triple[kRows * kLanes];  // sums of three, that row the last
};

VERDEL_INLINE void measure_powers(const Spectrum& spectrum, const Block& block,
                                  BlockPowers& powers) {
  const std::size_t rows = block.length() + 2 * kReach;
  for (std::size_t row = 0; row < rows; ++row) {
    const float* __restrict bins =
        spectrum.at(static_cast<std::ptrdiff_t>(block.first + row) - std::ptrdiff_t{kReach});
    float* __restrict power = powers.value + row * kLanes;
    for (std::size_t b = 0; b < kLanes; ++b) {
      power[b] = bins[b] * bins[b] + bins[kLanes + b] * bins[kLanes + b];
    }
  }
  const float* __restrict value = powers.value;
  float* __restrict triple = powers.triple;
  for (std::size_t i = 2 * kLanes; i < rows * kLanes; ++i) {
    triple[i] = (value[i - 2 * kLanes] + value[i - kLanes]) + value[i];
  }
}

// numerator over the average of nine, for each frame of the block. A block lies in one piece in a
// ring.
VERDEL_INLINE void invert_smoothed(const BlockPowers& powers, const Block& block, float numerator,
                                   float* __restrict inverse) {
  const float* __restrict triple = powers.triple;
  for (std::size_t i = 0; i < block.length() * kLanes; ++i) {
    const float sum = (triple[i + 2 * kLanes] + triple[i + 5 * kLanes]) + triple[i + 8 * kLanes];
    const float average = sum * (1.0F / kWindow);
    inverse[i] = numerator / (average > kLeastPower ? average : kLeastPower);
  }
}

VERDEL_INLINE void measure_support(const BlockPowers& powers, const Block& block,
                                   float* __restrict support) {
  const float* __restrict value = powers.value + (kReach - kSupportReach) * kLanes;
  for (std::size_t i = 0; i < block.length() * kLanes; ++i) {
    const float sum =
        (((value[i] + value[i + kLanes]) + value[i + 2 * kLanes]) + value[i + 3 * kLanes]) +
        value[i + 4 * kLanes];
    float power = sum * (1.0F / C14_SUPPORT_SMOOTH_FRAMES);
    power = power > kFloor ? power : kFloor;
    const float root = std::sqrt(power);
    support[i] = root * std::sqrt(root);
  }
}

// Products of stem and residual on their way through a lag's window.
struct LagWindow {
  alignas(64) float real[2][kLanes], imaginary[2][kLanes];                // the last two
  alignas(64) float real_triple[6][kLanes], imaginary_triple[6][kLanes];  // the last six sums
};

// Where the slots of a moment are, the same for all lags.
struct Slots {
  std::size_t older = 0, newer = 1, now = 0, three_back = 3;
  VERDEL_INLINE void advance() {
    std::swap(older, newer);
    now = now == 5 ? 0 : now + 1;
    three_back = three_back == 5 ? 0 : three_back + 1;
  }
};

// What stem and residual have in common in one bin: stem * conj(residual).
struct CrossProduct {
  float re, im;
};
VERDEL_INLINE CrossProduct cross_product(const float* model, const float* residual, std::size_t b) {
  const float re = model[b], im = model[kLanes + b];
  return {re * residual[b] + im * residual[kLanes + b],
          im * residual[b] - re * residual[kLanes + b]};
}

// The stem's frame against the residual's, `delay` frames later, enters the window.
VERDEL_INLINE void enter(const float* model, const float* residual, const Slots& slots,
                         LagWindow& window) {
  float* re_old = window.real[slots.older];
  float* im_old = window.imaginary[slots.older];
  const float* re_new = window.real[slots.newer];
  const float* im_new = window.imaginary[slots.newer];
  float* re_now = window.real_triple[slots.now];
  float* im_now = window.imaginary_triple[slots.now];
  VERDEL_INDEPENDENT
  for (std::size_t b = 0; b < kLanes; ++b) {
    const CrossProduct entering = cross_product(model, residual, b);
    re_now[b] = (re_old[b] + re_new[b]) + entering.re;
    im_now[b] = (im_old[b] + im_new[b]) + entering.im;
    re_old[b] = entering.re;
    im_old[b] = entering.im;
  }
}

// One stem in one tile.
struct ScoringTile {
  Spectrum model, residual;
  const float* model_power;     // ring, inverse
  const float* residual_power;  // ring, inverse, over the square of the window
  const float* support;         // ring
  float* claims[kEndpoints];    // [frame of the block], rows Tile::kRow apart
  HistoryDecays decays;
  // The next stem or tile, which is brought near meanwhile; null: none.
  const float* next_model;
  const float* next_power;
  const float* next_support;
};

struct LagWindows {
  LagWindow lag[kLags];
};

VERDEL_INLINE std::size_t delay_of(std::size_t lag) {
  return lag == 0 ? 0 : C14_HISTORY_DELAYS[lag - 1];
}

// Fills a lag's window up to just before frame t. Beyond the frames that have a partner the end's
// product stands. `slots` are those of frame t.
VERDEL_INLINE void prime(const ScoringTile& tile, std::size_t lag, std::size_t t, Slots slots,
                         LagWindow& window) {
  const std::size_t delay = delay_of(lag);
  const auto last = static_cast<std::ptrdiff_t>(tile.model.frames - delay) - 1;
  for (auto* values : {&window.real, &window.imaginary}) {
    std::fill_n(&(*values)[0][0], 2 * kLanes, 0.0F);
  }
  // Eight steps before t in rings of two and of six.
  for (int step = 0; step < 4; ++step) slots.advance();
  for (std::ptrdiff_t back = 2 * std::ptrdiff_t{kReach}; back > 0; --back) {
    const auto frame = static_cast<std::ptrdiff_t>(t - delay + kReach) - back;
    const auto nearest = static_cast<std::size_t>(frame < 0 ? 0 : frame > last ? last : frame);
    enter(tile.model.ring + SpectrumRing::offset(nearest),
          tile.residual.ring + SpectrumRing::offset(nearest + delay), slots, window);
    slots.advance();
  }
}

// What enters the windows at frame t, and what the windows around it are weighed with.
struct Moment {
  const float* residual;
  const float* residual_power;
  const float* support;
  float* lagged;
  float* persistent;
};

// Lag 0 begins the claims, each further one can only raise them. The square of the coherence is
// |cross|^2 / (power * power), at most 1; its root is never needed.
template <bool kFirst>
VERDEL_INLINE void claim(const ScoringTile& tile, const Moment& now, std::size_t entering,
                         std::size_t t, std::size_t lag, const Slots& slots, LagWindow& window) {
  constexpr float kMost = 1.0F / (kFloor * (kWindow * kWindow));  // the product's floor
  const std::size_t delay = delay_of(lag);
  const float* model = tile.model.ring + SpectrumRing::offset(entering - delay);
  const float* residual = now.residual;
  const float* model_power = tile.model_power + CellRing::offset(t - delay);
  const float* residual_power = now.residual_power;
  const float* support = now.support;
  const float* earlier = tile.support + CellRing::offset(t - delay);
  float* lagged = now.lagged;
  float* persistent = now.persistent;
  float* re_old = window.real[slots.older];
  float* im_old = window.imaginary[slots.older];
  const float* re_new = window.real[slots.newer];
  const float* im_new = window.imaginary[slots.newer];
  float* re_six = window.real_triple[slots.now];
  float* im_six = window.imaginary_triple[slots.now];
  const float* re_three = window.real_triple[slots.three_back];
  const float* im_three = window.imaginary_triple[slots.three_back];
  const float base = kFirst ? 0.0F : C14_COHERENCE_BASE * tile.decays[lag - 1];
  const float weight = kFirst ? 0.0F : C14_COHERENCE_WEIGHT * tile.decays[lag - 1];
  VERDEL_INDEPENDENT
  for (std::size_t b = 0; b < kLanes; ++b) {
    const CrossProduct entered = cross_product(model, residual, b);
    const float re_triple = (re_old[b] + re_new[b]) + entered.re;
    const float im_triple = (im_old[b] + im_new[b]) + entered.im;
    const float re_cross = (re_six[b] + re_three[b]) + re_triple;
    const float im_cross = (im_six[b] + im_three[b]) + im_triple;
    re_old[b] = entered.re;
    im_old[b] = entered.im;
    re_six[b] = re_triple;
    im_six[b] = im_triple;
    const float square = re_cross * re_cross + im_cross * im_cross;
    const float measured = (square * model_power[b]) * residual_power[b];
    const float bounded = square * kMost;
    float coherence = measured < bounded ? measured : bounded;
    coherence = coherence < 1.0F ? coherence : 1.0F;
    if constexpr (kFirst) {
      lagged[b] = support[b] * (C14_COHERENCE_BASE + C14_COHERENCE_WEIGHT * coherence);
      persistent[b] = support[b] * (C14_PRESENT_BASE + C14_PRESENT_WEIGHT * coherence);
    } else {
      const float quality = base + weight * coherence;
      const float lesser = support[b] < earlier[b] ? support[b] : earlier[b];
      const float past = earlier[b] * quality, sustained = lesser * quality;
      lagged[b] = lagged[b] > past ? lagged[b] : past;
      persistent[b] = persistent[b] > sustained ? persistent[b] : sustained;
    }
  }
}

// The frames that the next stem's kernel reads, a few lines of them with every frame of this one.
VERDEL_INLINE void bring_near(const ScoringTile& tile, const Block& block, std::size_t row) {
  constexpr std::size_t kRows = Block::kFrames + SourceScoring::kBack + SourceScoring::kAhead;
  const std::size_t from = row * kRows / block.length(), to = (row + 1) * kRows / block.length();
  for (std::size_t i = from; i < to; ++i) {
    const std::size_t frame = block.first + i + kRingFrames - SourceScoring::kBack;
    __builtin_prefetch(tile.next_model + SpectrumRing::offset(frame), 0, 2);
    __builtin_prefetch(tile.next_model + SpectrumRing::offset(frame) + kLanes, 0, 2);
    __builtin_prefetch(tile.next_power + CellRing::offset(frame), 0, 2);
    __builtin_prefetch(tile.next_support + CellRing::offset(frame), 0, 2);
  }
}

VERDEL_INLINE void score_block(const ScoringTile& tile, const Block& block, LagWindows& windows) {
  Slots slots;
  for (std::size_t lag = 0; lag < kLags && delay_of(lag) <= block.first; ++lag) {
    prime(tile, lag, block.first, slots, windows.lag[lag]);
  }
  for (std::size_t t = block.first; t < block.stop; ++t) {
    if (tile.next_model != nullptr) bring_near(tile, block, t - block.first);
    const std::size_t entering = std::min(t + kReach, tile.model.frames - 1);
    const std::size_t row = (t - block.first) * Tile::kRow;
    const Moment now{.residual = tile.residual.ring + SpectrumRing::offset(entering),
                     .residual_power = tile.residual_power + CellRing::offset(t),
                     .support = tile.support + CellRing::offset(t),
                     .lagged = tile.claims[0] + row,
                     .persistent = tile.claims[1] + row};
    claim<true>(tile, now, entering, t, 0, slots, windows.lag[0]);
    for (std::size_t lag = 1; lag < kLags && delay_of(lag) <= t; ++lag) {
      if (delay_of(lag) == t && t > block.first) prime(tile, lag, t, slots, windows.lag[lag]);
      claim<false>(tile, now, entering, t, lag, slots, windows.lag[lag]);
    }
    slots.advance();
  }
}

VERDEL_INLINE void smooth_model(const Spectrum& spectrum, const Block& block, float* power,
                                float* support) {
  BlockPowers powers;
  measure_powers(spectrum, block, powers);
  invert_smoothed(powers, block, 1.0F, power + CellRing::offset(block.first));
  measure_support(powers, block, support + CellRing::offset(block.first));
}

VERDEL_INLINE void smooth_residual(const Spectrum& spectrum, const Block& block, float* power) {
  BlockPowers powers;
  measure_powers(spectrum, block, powers);
  // The windows hold sums of nine, not averages.
  invert_smoothed(powers, block, 1.0F / (kWindow * kWindow), power + CellRing::offset(block.first));
}

// What the kernels make of zeros, without them.
void claim_nothing(const Block& block, float* power, float* support,
                   float* const claims[kEndpoints]) {
  const float least = std::sqrt(kFloor) * std::sqrt(std::sqrt(kFloor));
  const std::size_t at = CellRing::offset(block.first);
  std::fill_n(power + at, block.length() * kLanes, 1.0F / kLeastPower);
  std::fill_n(support + at, block.length() * kLanes, least);
  for (std::size_t row = 0; row < block.length(); ++row) {
    std::fill_n(claims[0] + row * Tile::kRow, kLanes, least * C14_COHERENCE_BASE);
    std::fill_n(claims[1] + row * Tile::kRow, kLanes, least * C14_PRESENT_BASE);
  }
}

// Sums of one tile's claims, [frame of the block][lane].
struct TileTotals {
  alignas(64) double sum[Block::kFrames * kLanes];
};

VERDEL_INLINE void add_claims(const float* claims, std::size_t frames, TileTotals& totals) {
  for (std::size_t row = 0; row < frames; ++row) {
    const float* __restrict from = claims + row * Tile::kRow;
    double* __restrict sum = totals.sum + row * kLanes;
    for (std::size_t b = 0; b < kLanes; ++b) sum[b] += static_cast<double>(from[b]);
  }
}

// A claim is never nothing (support has a floor), so neither is a sum of them.
static_assert(0.05 * 3.1e-23 > C14_SCORE_FLOOR, "the floor's support, to the power of 0.75");

VERDEL_INLINE void divide_by_totals(const float* residual, const TileTotals& totals,
                                    const Block& block, float* unit_shares) {
  for (std::size_t row = 0; row < block.length(); ++row) {
    const float* __restrict bins = residual + SpectrumRing::offset(block.first + row);
    const double* __restrict sum = totals.sum + row * kLanes;
    float* __restrict share = unit_shares + row * 2 * Tile::kRow;
    for (std::size_t b = 0; b < kLanes; ++b) {
      const double unit = 1.0 / sum[b];
      share[b] = static_cast<float>(static_cast<double>(bins[b]) * unit);
      share[kLanes + b] = static_cast<float>(static_cast<double>(bins[kLanes + b]) * unit);
    }
  }
}

VERDEL_INLINE double least_of(const double* __restrict sums, std::size_t count) {
  double least = sums[0];
  for (std::size_t b = 1; b < count; ++b) least = sums[b] < least ? sums[b] : least;
  return least;
}

}  // namespace

BlockScores::BlockScores(std::size_t stems) {
  for (auto& claim : claims) {
    claim = Array2D<float>::zeros(stems * Block::kFrames, Tile::kRow);
  }
  for (auto& share : unit_shares) {
    share = Array2D<float>::zeros(Block::kFrames, 2 * Tile::kRow);
  }
}

SourceScoring::SourceScoring(const ChannelSpectra& spectra, int sr)
    : spectra_(spectra),
      decays_(history_decays(sr)),
      powers_(spectra.stems()),
      support_(spectra.stems()),
      scores_(spectra.stems()) {}

void SourceScoring::score(const Block& block) {
  scores_.block = block;
  scores_.least_total.fill(1e300);
  for (std::size_t tile = 0; tile < Tile::kCount; ++tile) score_tile(tile);
}

void SourceScoring::score_tile(std::size_t tile) {
  const Block& block = scores_.block;
  const std::size_t frames = spectra_.extent().frames();
  run_kernel<smooth_residual>(Spectrum{spectra_.residual().tile(0, tile), frames}, block,
                              residual_powers_.tile(0, tile));
  TileTotals totals[kEndpoints] = {};
  for (std::size_t stem = 0; stem < spectra_.stems(); ++stem) {
    score_stem(stem, tile);
    for (std::size_t e = 0; e < kEndpoints; ++e) {
      run_kernel<add_claims>(
          scores_.claims[e].row(stem * Block::kFrames).data() + tile * Tile::kBins, block.length(),
          totals[e]);
    }
  }
  const std::size_t bins = tile + 1 < Tile::kCount ? Tile::kBins : 1;
  for (std::size_t e = 0; e < kEndpoints; ++e) {
    run_kernel<divide_by_totals>(spectra_.residual().tile(0, tile), totals[e], block,
                                 scores_.unit_shares[e].data() + tile * 2 * Tile::kBins);
    for (std::size_t row = 0; row < block.length(); ++row) {
      double& least = scores_.least_total[row];
      least = std::min(least, run_kernel<least_of>(totals[e].sum + row * kLanes, bins));
    }
  }
}

void SourceScoring::score_stem(std::size_t stem, std::size_t tile) {
  const Block& block = scores_.block;
  const std::size_t frames = spectra_.extent().frames();
  const Spectrum model{spectra_.models().tile(stem, tile), frames};
  float* power = powers_.tile(stem, tile);
  float* support = support_.tile(stem, tile);
  float* const claims[kEndpoints] = {
      scores_.claims[0].row(stem * Block::kFrames).data() + tile * Tile::kBins,
      scores_.claims[1].row(stem * Block::kFrames).data() + tile * Tile::kBins};
  const auto first = static_cast<std::ptrdiff_t>(block.first) - std::ptrdiff_t{kBack};
  if (spectra_.is_silent(stem, first, block.stop + kAhead)) {
    claim_nothing(block, power, support, claims);
    return;
  }
  run_kernel<smooth_model>(model, block, power, support);
  ScoringTile scoring{.model = model,
                      .residual = {spectra_.residual().tile(0, tile), frames},
                      .model_power = power,
                      .residual_power = residual_powers_.tile(0, tile),
                      .support = support,
                      .claims = {claims[0], claims[1]},
                      .decays = decays_,
                      .next_model = nullptr,
                      .next_power = nullptr,
                      .next_support = nullptr};
  const bool last = stem + 1 == spectra_.stems();
  const std::size_t next_stem = last ? 0 : stem + 1, next_tile = last ? tile + 1 : tile;
  if (next_tile < Tile::kCount) {
    scoring.next_model = spectra_.models().tile(next_stem, next_tile);
    scoring.next_power = powers_.tile(next_stem, next_tile);
    scoring.next_support = support_.tile(next_stem, next_tile);
  }
  LagWindows windows;
  run_kernel<score_block>(scoring, block, windows);
}

}  // namespace verdel::internal
