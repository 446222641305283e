#pragma once

#include <cstddef>
#include <vector>

#include "random.hpp"

/// What is played: tempo, harmony, and the notes of every instrument.
namespace demo {

inline constexpr double kBeatsPerMinute = 112.0;
inline constexpr double kSecondsPerBeat = 60.0 / kBeatsPerMinute;
inline constexpr int kBeatsPerBar = 4;

enum class Instrument { kKick, kSnare, kBass, kPads, kLead, kHats };
inline constexpr std::size_t kInstruments = 6;

struct Note {
  double start = 0.0;   ///< seconds from the beginning of the song
  double length = 0.0;  ///< seconds until it is let go; what follows is its release
  int pitch = 0;        ///< MIDI number, 69 is 440 Hz; drums do not look at it
  double velocity = 1.0;
};

/// The part of one instrument in a song of `seconds`, in order of time. Four chords go round in
/// bars of one chord each; a short introduction stands before them, and only a last beat is struck
/// in the last bar, so that every tail is heard to its end. `random` makes the playing human.
std::vector<Note> part_of(Instrument instrument, double seconds, Random& random);

}  // namespace demo
