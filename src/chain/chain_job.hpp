#pragma once

#include <cstddef>
#include <functional>
#include <string_view>
#include <vector>

#include "signal/arrays.hpp"
#include "support/stop_token.hpp"
#include "support/thread_pool.hpp"

namespace verdel::internal {

/// A tap votes +1 for what it went through and -1 against what it did not; below this it is
/// against.
inline constexpr double kVoteAgainst = 0.3;
/// The share of a change that may lie on taps that are against it.
inline constexpr double kMostAgainst = 0.05;

/// Audio that is only measured, at half the memory of audio that is handed out: single precision
/// lies 150 dB below full scale. [channels][frames].
using Heard = Array2D<float>;
using HeardView = RowsView<const float>;

/// What every step of the chain's search is given. All audio is [channels][frames] of one shape,
/// one or two channels.
struct ChainJob {
  AudioView mix;
  int sr = 0;                  ///< Hz
  ThreadPool* pool = nullptr;  ///< null: run here; no bit depends on it
  StopToken stop = {};
  /// Called with what is done of a phase, on the calling thread; may be empty.
  std::function<void(std::string_view phase, std::size_t done, std::size_t total)> progress = {};

  void tell(std::string_view phase, std::size_t done, std::size_t total) const {
    if (progress) progress(phase, done, total);
  }
};

/// A stretch of one channel that is one task's.
struct ChannelPart {
  std::size_t channel = 0;
  SampleSpan span;
};

/// All of a job's audio in parts, channel by channel. They depend on its shape alone, so that a sum
/// over them, in their order, has the same bits with any number of threads.
std::vector<ChannelPart> parts_of(const ChainJob& job);

/// Calls work(part) for all parts, spread over the pool.
void for_each_part(const ChainJob& job, const std::function<void(const ChannelPart& part)>& work);
/// The sum of term(part) over all parts.
double sum_over_parts(const ChainJob& job,
                      const std::function<double(const ChannelPart& part)>& term);

}  // namespace verdel::internal
