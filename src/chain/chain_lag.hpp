#pragma once

#include <complex>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "chain/chain_gain.hpp"
#include "chain/chain_job.hpp"
#include "chain/fir_player.hpp"
#include "signal/transforms.hpp"
#include "support/scratch_pool.hpp"

namespace verdel::internal {

/// How far off the chain's search looks for a lag.
inline constexpr double kLongestChainLag = 0.2;  // s

/// Fills a stretch of one channel from sample `first` on, with silence beyond the ends.
using StretchReader =
    std::function<void(std::size_t channel, std::size_t first, std::span<float> into)>;

/// The spectra of a filter at the length of the frames in which lags are looked for, [1][bins] by
/// [out * channels + in], empty where it is silent.
using LagFilters = std::vector<Array2D<std::complex<float>>>;

/// Looks for whole-sample lags within kLongestChainLag from the phase of a cross-spectrum: each
/// frequency counts as much as it is coherent and not by its energy, because an equaliser or a
/// crossover turns the phase of the bass and not of the whole (smoothed coherence transform,
/// Carter, Nuttall & Cable 1973). Looks at frames of 3 s, evenly spread over the job's length, of
/// which the spectra of one signal are kept. Threads: a task per some frames.
class CoherentLag {
 public:
  /// Reads `a`, of the job's shape.
  CoherentLag(const ChainJob& job, const StretchReader& a);
  ~CoherentLag();

  /// How much later `a` is than `b`; 0 where either is silent.
  std::ptrdiff_t against(const StretchReader& b) const;
  /// How much later than `part` is what stands for it in a + part, by some of the frames. `part`
  /// goes through filters on its frames' spectra, which is near enough for a lag; none: it is heard
  /// as it is.
  std::ptrdiff_t of_part(const std::vector<std::size_t>& frames, const StretchReader& part,
                         const LagFilters& filters) const;
  /// The frames in which a part sounds most.
  std::vector<std::size_t> loudest_frames(HeardView audio) const;
  /// Of at most longest_fir() samples.
  LagFilters filters_of(const ChainFir& fir) const;
  std::size_t longest_fir() const { return transform_.length() / 8; }

 private:
  using Spectrum = Array2D<std::complex<float>>;
  struct Sums;
  struct Scratch;

  std::vector<std::size_t> all_frames() const;
  std::ptrdiff_t find(const std::vector<std::size_t>& frames, const StretchReader& b,
                      const LagFilters& filters, float share_in_a) const;
  void add_frame(std::size_t frame, const StretchReader& b, const LagFilters& filters,
                 float share_in_a, Scratch& scratch, Sums& sums) const;
  void transform(const StretchReader& read, std::size_t frame, std::size_t channel,
                 Array2D<float>& time, Spectrum& into) const;
  std::ptrdiff_t peak_of(const Sums& sums) const;

  const ChainJob& job_;
  RealTransform<float> transform_;
  std::vector<float> window_;
  std::vector<std::size_t> starts_;
  std::vector<std::vector<Spectrum>> a_;  // by frame and channel
  std::unique_ptr<ScratchPool<Scratch>> scratches_;
};

/// The lag of `a` against `b` by plain cross-correlation of whole signals.
std::ptrdiff_t plain_lag(AudioView a, HeardView b, const ChainJob& job);

/// Reads audio as it is `lag` samples later.
StretchReader reader_of(AudioView audio, std::ptrdiff_t lag = 0);
StretchReader reader_of(HeardView audio, std::ptrdiff_t lag = 0);
/// Reads under a gain, which outlives the reader.
StretchReader under_gain(const GainCurve& gain, StretchReader read);

}  // namespace verdel::internal
