#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "signal/arrays.hpp"
#include "signal/song_storage.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// Rounds stems to 32-bit float, piece by piece as they are made, so that their sum still is the
/// mix: at every sample the rounding errors of all stems together go to the one with the largest
/// magnitude there (the earliest among equals), and what is left is the rounding of that one value.
/// With a `null_threshold` above -140 dB, or where plain rounding stays below it in the whole of
/// the mix, the stems are rounded and nothing else. No bit depends on the order of the pieces.
class CoordinatedStems {
 public:
  /// `mix`: [channels][samples], the range that is delivered; it outlives this. Throws ValueError
  /// for more than 65536 stems.
  CoordinatedStems(std::vector<std::string> names, AudioView mix, double null_threshold,
                   const SongStorage& storage = {});
  CoordinatedStems(CoordinatedStems&&) noexcept;
  ~CoordinatedStems();

  const std::vector<std::string>& names() const;

  /// Takes the stems of one channel from sample `first` of the mix on, [stems][samples], in the
  /// order of the names. From any thread; every sample comes once.
  void take(std::size_t channel, std::size_t first, RowsView<const double> stems);

  /// The stems as they go to the disk, when all samples have come; the last call.
  ///
  /// Errors: RuntimeError if the stems differ from the mix by more than rounding explains, or hold
  /// a value that a float cannot; Cancelled by `stop`.
  StemMap finish(const StopToken& stop = {});

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace verdel::internal
