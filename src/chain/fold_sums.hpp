#pragma once

#include <array>
#include <complex>
#include <cstddef>
#include <vector>

#include "chain/chain_gain.hpp"
#include "chain/chain_job.hpp"

namespace verdel::internal {

/// Cross-validation folds: blocks of 2 s, every eighth to one fold.
inline constexpr std::size_t kFolds = 8;

/// What a step of the filter is fitted to: mix - gain * y from gain * x.
struct FitSignals {
  HeardView x;            ///< what goes into the filter, [channels][frames]
  HeardView y;            ///< all that is heard so far
  const GainCurve& gain;  ///< over y
  bool first = false;     ///< whether no filter has been found yet
  bool rough = false;     ///< whether some thousand frames, evenly spread, will do
};

/// Weighted sums over the frames of one fold of one channel, per bin. Source 0 is the channel's own
/// signal, source 1 the other channel's.
struct ChannelFold {
  std::array<std::array<std::vector<std::complex<double>>, 2>, 2> between;  ///< conj(i) times j
  std::array<std::vector<std::complex<double>>, 2> with_target;             ///< conj(i) times rest
  double target = 0.0;                                                      ///< energy of the rest
};

struct FoldSums {
  std::vector<ChannelFold> channels_folds;
  const ChannelFold& of(std::size_t channel, std::size_t fold) const {
    return channels_folds[channel * kFolds + fold];
  }
};

/// The sums over frames of `frame` samples, half overlapping, under Hann windows. Each cell weighs
/// by the inverse of what is left around it (of the mix, in a first step), which whitens the fit
/// and turns down what no filter explains. Nothing of frames times bins is kept, but for a thousand
/// frames that the median is taken from. Threads: one task per channel and fold.
FoldSums sum_folds(const FitSignals& signals, std::size_t frame, const ChainJob& job);

}  // namespace verdel::internal
