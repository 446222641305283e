#pragma once

#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

#include "chain/chain_job.hpp"
#include "chain/heard_taps.hpp"
#include "signal/arrays.hpp"

namespace verdel::internal {

/// What is listened to of a song while filters of single taps are sought: all of a short one, a
/// minute of a long one, evenly spread. The passages stand one behind the other. What rings into
/// each stands ahead of it and what a filter looks ahead to behind it: both are heard, not judged.
class Passages {
 public:
  /// Mix and taps stay the caller's; the taps' paths are looked up at every call.
  Passages(const ChainJob& song, const HeardTaps& taps);
  Passages(const Passages&) = delete;

  /// The song's job with the passages for its mix, and without progress.
  const ChainJob& job() const { return job_; }
  /// The parts of the passages, in order, that are judged.
  std::span<const SampleSpan> judged() const { return judged_; }
  Heard room() const { return Heard::uninitialised(job_.mix.rows(), job_.mix.columns()); }

  /// A channel of a tap as it came, moved, from sample `first` of the passages on.
  void read(std::size_t tap, std::size_t channel, std::size_t first, std::span<float> into) const;
  /// A tap at the end of its way. `room` is of the same shape, here and below.
  void hear(std::size_t tap, const ChainFir* master, Heard& into, Heard& room) const;
  /// All that is heard.
  void hear_all(const ChainFir* master, Heard& into, Heard& room) const;

  /// Silences what is not judged.
  void silence_rest(Heard& audio) const;
  /// Mix and `audio` of every other passage without what is not judged, for the search of gains,
  /// which ring for no time.
  struct Cut {
    AudioArray mix;
    Heard audio;
  };
  Cut some_judged(const Heard& audio) const;

 private:
  /// From `at` on the passages are the song from `from` on.
  struct Stretch {
    std::size_t at = 0, from = 0;
  };

  void choose(std::size_t frames, int sr);
  void sum_given(Heard& into) const;

  const HeardTaps& taps_;
  std::vector<Stretch> stretches_;
  std::vector<SampleSpan> judged_;
  std::size_t frames_ = 0;
  AudioArray mix_;  // of a long song
  ChainJob job_;
};

/// Calls work(first, stop) for what the spans, in order and apart, have in common with a stretch.
template <class Work>
void for_each_overlap(std::span<const SampleSpan> spans, const SampleSpan& stretch, Work work) {
  for (const SampleSpan& span : spans) {
    const std::size_t first = std::max(span.first, stretch.first);
    const std::size_t stop = std::min(span.stop, stretch.stop);
    if (first < stop) work(first, stop);
  }
}

/// Silences what lies in no span of the audio that begins at sample `first`.
void keep_only(std::span<const SampleSpan> spans, std::size_t first, std::span<float> audio);

}  // namespace verdel::internal
