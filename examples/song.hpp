#pragma once

#include <cstddef>
#include <vector>

#include "random.hpp"

/// What is played: tempo, harmony, and the notes of every instrument.
namespace demo {

inline constexpr int kBeatsPerBar = 4;

/// What sets one song apart from another. As it is, everybody plays all the time and on the beat.
struct Arrangement {
  double beats_per_minute = 112.0;
  int transpose = 0;       ///< semitones
  double looseness = 0.0;  ///< seconds by which a note may come early or late
  double rest = 0.0;       ///< how likely an instrument is to leave out a round of four chords
  int first_chord = 0;     ///< of the four, the one that a round begins with

  double seconds_per_beat() const { return 60.0 / beats_per_minute; }
};

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
std::vector<Note> part_of(Instrument instrument, double seconds, const Arrangement& arrangement,
                          Random& random);

}  // namespace demo
