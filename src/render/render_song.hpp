#pragma once

#include <cstddef>
#include <vector>

#include "alignment/tap_alignment.hpp"
#include "allocation/channels.hpp"
#include "delivery/coordinated_float32.hpp"
#include "signal/arrays.hpp"
#include "signal/profile.hpp"
#include "signal/song_storage.hpp"
#include "support/machine.hpp"
#include "support/stage.hpp"
#include "support/stop_token.hpp"

/// The walk of one render: taps onto the mix, the shared gain, the residual shared out. Whoever
/// renders, with files or without, comes through here.
namespace verdel::internal {

struct SongJob {
  AudioView mix;          ///< [channels][frames], the whole source
  int sr = 0;             ///< Hz
  SampleSpan range = {};  ///< the samples of the source to deliver
  Profile profile = {};
  bool align = true;         ///< whether taps may be moved
  bool tell_levels = false;  ///< whether the two levels below are worth a pass over all samples
  SongStorage storage = {};  ///< where sums, gain, moved taps and stems stand
};

/// Hears how a render gets on. Calls come from the thread of the render, in the order in which they
/// stand here, but for the two of the allocation. They may throw to end the render.
class SongObserver {
 public:
  virtual ~SongObserver() = default;

  virtual void begin(Stage) {}
  /// The taps that were moved.
  virtual void aligned(const std::vector<AppliedLag>&) {}
  /// RMS of the mix minus the taps against that of the mix, in dB.
  virtual void raw_difference(double) {}
  /// RMS of what the model leaves of the mix against that of the mix, in dB.
  virtual void left_to_allocate(double) {}
  /// What is to be allocated.
  virtual void fitted(const Model&) {}
  /// Steps finished of all channels, and their number; one call at a time, never falling, from the
  /// threads of the allocation.
  virtual void progress(std::size_t, std::size_t) {}
  /// The same of each channel by itself, on the threads that make it, several at a time.
  virtual void channel_progress(std::size_t, std::size_t) {}
};

/// Aligns the taps in their place, fits the model to the whole mix and shares out the residual.
/// Returns the stems of the range, in the order of the taps, rounded together as they were made.
///
/// The taps have the mix's shape, and stay as they are once they are aligned.
/// Errors: those of align_taps_to_mix, sum_of_taps, shared_single_band_gain and render_channels.
CoordinatedStems render_song(const SongJob& job, StemMap& taps, const Machine& machine,
                             SongObserver& observer, const StopToken& stop = {});

}  // namespace verdel::internal
