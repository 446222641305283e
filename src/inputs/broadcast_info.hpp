#pragma once

#include <cstdint>
#include <string>

namespace verdel::internal {

/// What a Broadcast WAV (EBU Tech 3285) says of where and when its sound begins; the parts of its
/// `bext` chunk that hold for every stem of a mix as for the mix.
struct BroadcastInfo {
  std::string description = {};      ///< at most 256 bytes
  std::string originator = {};       ///< at most 32 bytes
  std::string date = {}, time = {};  ///< yyyy-mm-dd, hh:mm:ss; of the origination
  std::uint64_t time_reference = 0;  ///< frames from midnight to the first one

  bool operator==(const BroadcastInfo&) const = default;
};

}  // namespace verdel::internal
