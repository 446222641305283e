#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "signal/arrays.hpp"
#include "signal/song_storage.hpp"
#include "support/machine.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// A tap that was moved, and by how many samples; positive is later.
struct AppliedLag {
  std::string name;
  std::ptrdiff_t lag;
};

/// A copy of `a`, `lag` samples later (earlier if negative). What is pushed past either end is
/// lost, silence comes in at the other; the length stays.
StemArray align_tap(StemView a, std::ptrdiff_t lag, const SongStorage& storage = {});

/// Offers every tap the lag that lines it up with the mix, and moves it only if that lowers the
/// energy of the mix minus the taps, judged with all earlier moves made. The entries of moved taps
/// are replaced; the others keep their arrays. Returns the moves in the order of the taps.
///
/// Threads: lags are searched by up to four threads, as many as there are processors; the moves are
/// decided on the calling thread, so their number changes nothing. Errors: ValueError for a tap of
/// another shape than the mix; Cancelled. Both leave no tap half moved. Samples that are not finite
/// move nothing.
std::vector<AppliedLag> align_taps_to_mix(AudioView mix, StemMap& taps, int sr,
                                          const Machine& machine, const StopToken& stop = {},
                                          const SongStorage& storage = {});

}  // namespace verdel::internal
