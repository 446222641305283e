#include "song.hpp"

#include <algorithm>
#include <array>
#include <cmath>

namespace demo {
namespace {

constexpr int kIntroductionBars = 2;
constexpr int kBarsPerRound = 4;

/// One bar's harmony, A minor, F, C and G, voiced so that the hands hardly move.
struct Chord {
  int bass;
  std::array<int, 4> notes;
};
constexpr std::array<Chord, kBarsPerRound> kChords = {{{33, {57, 60, 64, 67}},
                                                       {29, {57, 60, 64, 65}},
                                                       {36, {55, 60, 64, 67}},
                                                       {31, {55, 59, 62, 67}}}};

/// A note of a pattern, in beats from the beginning of its bar or round.
struct Step {
  double beat;
  double beats;
  int pitch;
};
constexpr std::array<Step, 13> kMelody = {{{0, 1.5, 76},
                                           {1.5, 0.5, 74},
                                           {2, 1, 72},
                                           {3, 1, 69},
                                           {4, 1.5, 72},
                                           {5.5, 0.5, 74},
                                           {6, 2, 76},
                                           {8, 1.5, 79},
                                           {9.5, 0.5, 76},
                                           {10, 1, 74},
                                           {11, 1, 72},
                                           {12, 3, 74},
                                           {15, 1, 71}}};
/// Here the pitch is counted from the root of the chord.
constexpr std::array<Step, 6> kBassBar = {
    {{0, 0.75, 0}, {0.75, 0.5, 0}, {1.5, 0.5, 12}, {2, 0.75, 0}, {2.75, 0.5, 7}, {3.5, 0.5, 12}}};
constexpr std::array<double, 5> kKickBar = {0, 1, 1.75, 2, 3};
constexpr std::array<double, 2> kSnareBar = {1, 3};
constexpr std::array<double, 5> kSnareFill = {1, 2.5, 3, 3.25, 3.5};

/// Collects one instrument's notes; beats count from the beginning of the song.
class Part {
 public:
  Part(const Arrangement& arrangement, Random& random)
      : arrangement_(arrangement), random_(random) {}

  void add(double beat, double beats, int pitch, double velocity) {
    const double human = 1.0 + 0.08 * random_.noise();
    const double second = arrangement_.seconds_per_beat();
    double start = beat * second;
    if (arrangement_.looseness > 0.0) {
      start = std::max(0.0, start + arrangement_.looseness * random_.noise());
    }
    notes_.push_back({start, beats * second, pitch + arrangement_.transpose, velocity * human});
  }
  bool rests() {
    return arrangement_.rest > 0.0 && 0.5 + 0.5 * random_.noise() < arrangement_.rest;
  }
  std::vector<Note> take() { return std::move(notes_); }

 private:
  const Arrangement& arrangement_;
  Random& random_;
  std::vector<Note> notes_;
};

void add_bar(Instrument instrument, int bar, int turn, Part& part) {
  const double beat = bar * kBeatsPerBar;
  const Chord& chord = kChords[static_cast<std::size_t>(turn)];
  const bool introduction = bar < kIntroductionBars;
  switch (instrument) {
    case Instrument::kKick:
      for (const double at : kKickBar) part.add(beat + at, 0.25, 0, at == 1.75 ? 0.7 : 1.0);
      return;
    case Instrument::kSnare:
      if (introduction) return;
      if (turn == kBarsPerRound - 1) {
        for (const double at : kSnareFill) part.add(beat + at, 0.25, 0, at < 3.0 ? 0.8 : 0.95);
      } else {
        for (const double at : kSnareBar) part.add(beat + at, 0.25, 0, 1.0);
      }
      return;
    case Instrument::kHats:
      for (int eighth = 0; eighth < 2 * kBeatsPerBar; ++eighth) {
        const bool open = eighth == 2 * kBeatsPerBar - 1;
        part.add(beat + 0.5 * eighth, open ? 0.5 : 0.1, 0, eighth % 2 == 0 ? 0.6 : 1.0);
      }
      return;
    case Instrument::kBass:
      if (introduction) return;
      for (const Step& step : kBassBar) {
        part.add(beat + step.beat, 0.9 * step.beats, chord.bass + step.pitch, 1.0);
      }
      return;
    case Instrument::kPads:
      for (const int pitch : chord.notes) part.add(beat, kBeatsPerBar, pitch, 1.0);
      return;
    case Instrument::kLead:
      if (introduction) return;
      for (const Step& step : kMelody) {
        if (static_cast<int>(step.beat) / kBeatsPerBar != turn) continue;
        part.add(beat + step.beat - turn * kBeatsPerBar, 0.95 * step.beats, step.pitch, 1.0);
      }
      return;
  }
}

void add_last_beat(Instrument instrument, int bar, Part& part) {
  const double beat = bar * kBeatsPerBar;
  const Chord& chord = kChords.front();
  switch (instrument) {
    case Instrument::kBass:
      part.add(beat, 1.0, chord.bass, 1.0);
      return;
    case Instrument::kPads:
      for (const int pitch : chord.notes) part.add(beat, 1.0, pitch, 1.0);
      return;
    case Instrument::kLead:
      part.add(beat, 1.0, 69, 1.0);
      return;
    default:
      part.add(beat, 0.25, 0, 1.0);
  }
}

}  // namespace

std::vector<Note> part_of(Instrument instrument, double seconds, const Arrangement& arrangement,
                          Random& random) {
  // A hair's breadth is allowed for, so that a song of whole bars keeps its last one.
  const double bar_seconds = arrangement.seconds_per_beat() * kBeatsPerBar;
  const int bars = static_cast<int>(seconds / bar_seconds + 1e-9);
  Part part(arrangement, random);
  bool rests = false;
  for (int bar = 0; bar + 1 < bars; ++bar) {
    if (bar % kBarsPerRound == 0) rests = part.rests();
    if (rests) continue;
    add_bar(instrument, bar, (bar + arrangement.first_chord) % kBarsPerRound, part);
  }
  add_last_beat(instrument, bars > 0 ? bars - 1 : 0, part);
  return part.take();
}

}  // namespace demo
