#pragma once

#include <complex>
#include <cstddef>
#include <functional>
#include <span>
#include <vector>

#include "chain/chain_job.hpp"
#include "signal/transforms.hpp"

namespace verdel::internal {

/// Filters of one or two channels: response[out][in], [channels][channels] rows of `length` samples
/// each, of which sample `centre` is no delay. Rows that are all zero cost nothing.
struct ChainFir {
  std::size_t channels = 0, length = 0, centre = 0;
  std::vector<std::vector<double>> responses;  ///< [out * channels + in]
};

/// What `first` and then `second` come to.
ChainFir in_a_row(const ChainFir& first, const ChainFir& second);

/// Plays audio, `lag` samples later, through the filters, by overlap-save, into an array of its
/// shape, which is another. Threads: a task per some blocks.
void play(HeardView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
          StemArray& result);

/// The same worked out in single precision, at half the price, for what is only measured.
void play_to_measure(HeardView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
                     Heard& result);
void play_to_measure(HeardView audio, const ChainFir& fir, const ChainJob& job, Heard& result);

/// A stretch of one channel as it was played, for who needs no more at a time.
struct PlayedStretch {
  std::size_t task = 0;  ///< the stretches of a task come one after the other
  std::size_t channel = 0, first = 0;
  std::span<const float> samples;
  std::span<const float> given;  ///< the audio itself, moved
};

/// How many tasks playing `audio` makes.
std::size_t play_tasks(HeardView audio, const ChainFir& fir);
void play_to_measure(HeardView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
                     const std::function<void(const PlayedStretch&)>& take);

}  // namespace verdel::internal
