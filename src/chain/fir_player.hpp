#pragma once

#include <complex>
#include <cstddef>
#include <vector>

#include "chain/chain_job.hpp"
#include "signal/transforms.hpp"

namespace verdel::internal {

/// Filters of one or two channels: response[out][in], [channels][channels] rows of `length` samples
/// each, whose middle sample is no delay. Rows that are all zero cost nothing.
struct ChainFir {
  std::size_t channels = 0, length = 0;
  std::vector<std::vector<double>> responses;  ///< [out * channels + in]
};

/// Plays audio, `lag` samples later, through the filters, by overlap-save, into an array of its
/// shape, which is another. Threads: one task per channel.
void play(AudioView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
          AudioArray& result);

/// The same in single precision, at half the price, for what is only measured.
void play_to_measure(AudioView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
                     AudioArray& result);

}  // namespace verdel::internal
