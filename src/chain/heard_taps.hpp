#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "chain/chain_job.hpp"
#include "chain/fir_player.hpp"

namespace verdel::internal {

/// What happens to one tap ahead of the master chain.
struct TapPath {
  std::ptrdiff_t lag = 0;       ///< samples it is moved, positive: later
  std::optional<ChainFir> own;  ///< what it went through on its own
};

/// The taps, which stay as they came until the search is over, and their paths.
class HeardTaps {
 public:
  /// Every tap has the mix's shape. The taps stay the caller's.
  explicit HeardTaps(const StemMap& taps) : paths(taps.size()), taps_(taps) {}

  std::size_t size() const { return paths.size(); }
  HeardView given(std::size_t tap) const { return taps_[tap].audio.view(); }
  /// What a tap goes through on its way to the listener; absent where it is nothing.
  std::optional<ChainFir> way(std::size_t tap, const ChainFir* master) const;

  /// One tap at the end of its way.
  void hear(std::size_t tap, const ChainFir* master, const ChainJob& job, Heard& into) const;
  /// The sum of all taps ahead of the master chain. `room` is of the same shape.
  void sum(const ChainJob& job, Heard& into, Heard& room) const;
  /// Plays the taps into themselves. `taps` are those that this was made of.
  void hand_out(const ChainFir* master, const ChainJob& job, StemMap& taps) const;

  std::vector<TapPath> paths;

 private:
  const StemMap& taps_;
};

}  // namespace verdel::internal
