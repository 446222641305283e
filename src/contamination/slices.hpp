#pragma once

#include <cstddef>

/// The song cut into slices that are separated one by one.
namespace verdel::internal {

/// Equal slices over a song of `frames` samples. The core of slice k is the song's samples from
/// k * core on; around it stands context, on which the filters of narrow bands can ring. What a
/// slice covers outside of the song is silence.
struct SlicePlan {
  std::size_t frames = 0;   ///< of the song
  std::size_t length = 0;   ///< samples of a slice, the length of its transform
  std::size_t context = 0;  ///< samples in front of the core; the rest of the slice is behind it
  std::size_t core = 0;     ///< samples; a multiple of `cell` unless there is one slice only
  std::size_t count = 0;    ///< slices
  std::size_t cell = 1;     ///< samples to a cell of the envelopes, which no slice may cut
  bool full_rate = false;   ///< too short for bands at rates of their own

  std::size_t core_begin(std::size_t slice) const { return slice * core; }
  std::size_t core_frames(std::size_t slice) const;
  std::size_t cells() const { return (frames + cell - 1) / cell; }

  /// Where the song lies in a slice: samples first .. stop - 1 hold it, from its sample
  /// `song_first` on.
  struct Extent {
    std::size_t first = 0, stop = 0, song_first = 0;
    std::size_t frames() const { return stop - first; }
  };
  Extent extent(std::size_t slice) const;
};

/// The plan for a song of `frames` > 0 samples at `sr` Hz. `nfft` is the transform length that the
/// whole source would take; no excerpt pays for it.
SlicePlan plan_slices(std::size_t frames, int sr, std::size_t nfft);

/// The smallest even length not below `least` that is a power of two times 1, 5/4, 3/2 or 15/8:
/// these transform quickly (9/8 does not), and waste a quarter less than powers of two.
std::size_t good_transform_length(std::size_t least);

}  // namespace verdel::internal
