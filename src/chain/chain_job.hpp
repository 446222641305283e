#pragma once

#include <cstddef>
#include <functional>
#include <string_view>

#include "signal/arrays.hpp"
#include "support/stop_token.hpp"
#include "support/thread_pool.hpp"

namespace verdel::internal {

/// A tap votes +1 for what it went through and -1 against what it did not; below this it is
/// against.
inline constexpr double kVoteAgainst = 0.3;
/// The share of a change that may lie on taps that are against it.
inline constexpr double kMostAgainst = 0.05;

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

}  // namespace verdel::internal
