#pragma once

#include <cstddef>
#include <functional>
#include <span>

#include "chain/chain_job.hpp"

namespace verdel::internal {

/// How far off the chain's search looks for a lag.
inline constexpr double kLongestChainLag = 0.2;  // s

/// Fills a stretch of one channel from sample `first` on, with silence beyond the ends.
using StretchReader =
    std::function<void(std::size_t channel, std::size_t first, std::span<float> into)>;

/// Whole-sample lag of `a` against `b` (positive: a is later), within kLongestChainLag, from the
/// phase of their cross-spectrum: each frequency counts as much as it is coherent and not by its
/// energy, because an equaliser or a crossover turns the phase of the bass and not of the whole
/// (smoothed coherence transform, Carter, Nuttall & Cable 1973). 0 where either is silent.
std::ptrdiff_t coherent_lag(const StretchReader& a, const StretchReader& b, std::size_t channels,
                            std::size_t frames, const ChainJob& job);

/// The same by plain cross-correlation of whole signals.
std::ptrdiff_t plain_lag(AudioView a, AudioView b, int sr, const StopToken& stop);

StretchReader reader_of(AudioView audio);

}  // namespace verdel::internal
