#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "song.hpp"

/// How it sounds: a small synthesiser for each instrument.
namespace demo {

struct Stereo {
  std::vector<double> left, right;  ///< one length

  explicit Stereo(std::size_t frames) : left(frames), right(frames) {}
  std::size_t frames() const { return left.size(); }
};

/// Holds the peak at or below `ceiling` by one gain for the whole sound, and tells it.
double keep_below(Stereo& sound, double ceiling);

/// "Kick", "Snare" ...
std::string name_of(Instrument instrument);

/// The notes as sound, at `sr` Hz; echoes follow the beat. Another `variation` of an instrument is
/// tuned and panned otherwise, so that a project of many stems has no two alike. Peaks stay below
/// full scale.
Stereo play(Instrument instrument, std::size_t variation, const std::vector<Note>& notes,
            double seconds_per_beat, std::size_t frames, double sr, Random& random);

}  // namespace demo
