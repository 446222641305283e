#pragma once

#include <complex>
#include <cstddef>
#include <span>
#include <vector>

#include "chain/chain_gain.hpp"
#include "chain/effect_fit.hpp"
#include "signal/transforms.hpp"
#include "support/scratch_pool.hpp"

namespace verdel::internal {

using EffectSpectrum = Array2D<std::complex<float>>;

/// A filter of an effect: what it adds to the tap, from `before` samples ahead of the sound on.
using EffectResponse = std::vector<double>;

/// How the sound is cut: blocks of `block` samples, each transformed with the filter's length ahead
/// of it.
struct EffectPlan {
  std::size_t length, before, frame, block, blocks;
  RealTransform<float> transform;

  EffectPlan(std::size_t frames, int sr);
  /// A row of spectra begins where a transform may write.
  std::size_t row_bins() const { return (transform.bins() + 7) / 8 * 8; }
};

/// Energies and products that judge a filter on a part of the sound: of what is left (before), of
/// the source under the gain, and of what the filter leaves.
struct EffectSums {
  double cross = 0.0, power = 0.0, rest = 0.0, left = 0.0;
  void add(const EffectSums& other);
};

/// One channel, block by block: how a filter sounds in it, and what of it goes back to the filter.
/// The source's spectra are kept, as every product needs them. `seen` are the parts of the sound
/// that count.
class EffectChannel {
 public:
  /// For the work on one block.
  struct Room {
    Array2D<float> time;
    EffectSpectrum spectrum;
    std::vector<float> gains;
    explicit Room(const EffectPlan& plan);
  };
  using Spans = std::span<const SampleSpan>;

  EffectChannel(const EffectPlan& plan, const EffectSignals& signals, std::size_t channel);

  /// Transforms a block of the source; adds the power spectrum of gain * source.
  void prepare(std::size_t block, std::span<std::complex<float>> power, Room& room);
  /// Adds a block's part of the right-hand side, the correlation of source and gain * rest.
  void add_target(std::size_t block, Spans seen, std::span<std::complex<float>> sums,
                  Room& room) const;
  /// Adds a block's part of the matrix times a filter, given as its spectrum.
  void add_product(std::size_t block, Spans seen, std::span<const std::complex<float>> filter,
                   std::span<std::complex<float>> sums, Room& room) const;
  /// Plays a block through a filter, given as its spectrum, into the room.
  void play(std::size_t block, std::span<const std::complex<float>> filter, Room& room) const;
  /// What the filter of which a block has just been played leaves of some of it.
  EffectSums judge(std::size_t block, Spans heard, Room& room) const;

 private:
  SampleSpan span_of(std::size_t block) const;
  std::span<const float> gains_of(std::size_t block, Room& room) const;
  void read_source(std::size_t block, std::span<float> time) const;
  void correlate_block(std::size_t block, std::span<std::complex<float>> sums, Room& room) const;

  const EffectPlan& plan_;
  std::span<const float> source_, rest_;
  const GainCurve& gain_;
  std::size_t channel_;
  EffectSpectrum spectra_;  // [blocks][bins]
};

}  // namespace verdel::internal
