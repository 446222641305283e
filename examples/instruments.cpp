#include "instruments.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace demo {
namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;

double hertz(double pitch) {
  return 440.0 * std::exp2((pitch - 69.0) / 12.0);
}

/// What falls to 1/e in `seconds`.
double decay(double time, double seconds) {
  return std::exp(-time / seconds);
}

/// First-order low pass.
class LowPass {
 public:
  double operator()(double input, double cutoff, double sr) {
    state_ += (1.0 - std::exp(-kTwoPi * cutoff / sr)) * (input - state_);
    return state_;
  }

 private:
  double state_ = 0.0;
};

/// What a low pass takes away, twice.
class HighPass {
 public:
  double operator()(double input, double cutoff, double sr) {
    const double once = input - first_(input, cutoff, sr);
    return once - second_(once, cutoff, sr);
  }

 private:
  LowPass first_, second_;
};

/// Sawtooth whose step is rounded off over one sample on either side (polynomial band-limited
/// step, Valimaki & Huovilainen 2007).
class Saw {
 public:
  double operator()(double frequency, double sr) {
    const double step = frequency / sr;
    phase_ += step;
    if (phase_ >= 1.0) phase_ -= 1.0;
    double value = 2.0 * phase_ - 1.0;
    if (phase_ < step) {
      const double x = phase_ / step - 1.0;
      value += x * x;
    } else if (phase_ > 1.0 - step) {
      const double x = (phase_ - 1.0) / step + 1.0;
      value -= x * x;
    }
    return value;
  }

 private:
  double phase_ = 0.0;
};

/// Rises over `attack` seconds, and falls from `length` on with the time constant `release`.
struct Envelope {
  double length, attack, release;

  double operator()(double time) const {
    const double risen = std::min(1.0, time / attack);
    return time < length ? risen : risen * decay(time - length, release);
  }
  /// Until nothing is heard any more.
  double seconds() const { return length + 8.0 * release; }
};

/// Where a variation stands between left (-1) and right (1), and its gain for either side.
struct Place {
  double left, right;

  explicit Place(double pan)
      : left(std::cos(0.25 * std::numbers::pi * (1.0 + pan))),
        right(std::sin(0.25 * std::numbers::pi * (1.0 + pan))) {}
};

Place place_of(Instrument instrument, std::size_t variation) {
  constexpr std::array<double, kInstruments> kHome = {0.0, 0.08, 0.0, 0.0, -0.35, 0.4};
  constexpr std::array<double, 5> kShift = {0.0, 0.5, -0.5, 0.25, -0.25};
  return Place(kHome[static_cast<std::size_t>(instrument)] + kShift[variation % kShift.size()]);
}

/// Calls sample(i, time) for every frame of the song that a sound of `seconds` reaches.
template <class Sample>
void for_each_sample(const Note& note, double seconds, std::size_t frames, double sr,
                     Sample sample) {
  const auto first = static_cast<std::size_t>(std::lround(note.start * sr));
  const auto count = static_cast<std::size_t>(seconds * sr);
  const std::size_t stop = std::min(frames, first + count);
  for (std::size_t i = first; i < stop; ++i) sample(i, static_cast<double>(i - first) / sr);
}

struct Player {
  Stereo& out;
  double sr;
  Place place;
  double tuning;  ///< semitones
  Random& random;

  void add(std::size_t i, double value) {
    out.left[i] += place.left * value;
    out.right[i] += place.right * value;
  }
  void add_wide(std::size_t i, double left, double right) {
    out.left[i] += place.left * left;
    out.right[i] += place.right * right;
  }
};

/// A falling sine and a click.
void kick(const Note& note, Player& player) {
  double phase = 0.0;
  const double low = 47.0 * std::exp2(player.tuning / 12.0);
  for_each_sample(note, 0.9, player.out.frames(), player.sr, [&](std::size_t i, double time) {
    phase += kTwoPi * (low + 3.0 * low * decay(time, 0.028)) / player.sr;
    const double click = 0.25 * player.random.noise() * decay(time, 0.004);
    player.add(i, 0.5 * note.velocity * (std::sin(phase) * decay(time, 0.13) + click));
  });
}

/// Two modes of the skin, the wires, and a noisy room that outlasts both.
void snare(const Note& note, Player& player) {
  const double skin = kTwoPi * 182.0 * std::exp2(player.tuning / 12.0);
  std::array<HighPass, 2> wires, room;
  for_each_sample(note, 1.6, player.out.frames(), player.sr, [&](std::size_t i, double time) {
    const double body =
        0.6 * (std::sin(skin * time) + 0.6 * std::sin(1.78 * skin * time)) * decay(time, 0.06);
    const double tail = std::min(1.0, time / 0.02) * decay(time, 0.22);
    std::array<double, 2> side;
    for (std::size_t s = 0; s < side.size(); ++s) {
      const double noise = player.random.noise();
      side[s] = body + 0.7 * wires[s](noise, 1800.0, player.sr) * decay(time, 0.045) +
                0.3 * room[s](noise, 600.0, player.sr) * tail;
    }
    player.add_wide(i, 0.6 * note.velocity * side[0], 0.6 * note.velocity * side[1]);
  });
}

/// Closed or open, as the note is short or long.
void hats(const Note& note, Player& player) {
  const double seconds = note.length > 0.2 ? 0.16 : 0.028;
  const double cutoff = std::min(7000.0 * std::exp2(player.tuning / 12.0), 0.35 * player.sr);
  HighPass filter;
  for_each_sample(note, 8.0 * seconds, player.out.frames(), player.sr,
                  [&](std::size_t i, double time) {
                    const double noise = filter(player.random.noise(), cutoff, player.sr);
                    player.add(i, 0.6 * note.velocity * noise * decay(time, seconds));
                  });
}

/// A sawtooth behind a closing filter, and the plain fundamental.
void bass(const Note& note, Player& player) {
  const double frequency = hertz(note.pitch + player.tuning);
  const Envelope envelope{note.length, 0.006, 0.05};
  Saw saw;
  LowPass first, second;
  for_each_sample(
      note, envelope.seconds(), player.out.frames(), player.sr, [&](std::size_t i, double time) {
        const double cutoff = 220.0 + 1400.0 * decay(time, 0.12);
        const double bright =
            second(first(saw(frequency, player.sr), cutoff, player.sr), cutoff, player.sr);
        const double root = std::sin(kTwoPi * frequency * time);
        player.add(i, note.velocity * envelope(time) * (0.3 * bright + 0.2 * root));
      });
}

/// Two sawtooths a few cents apart, one on either side, that swell and fade.
void pads(const Note& note, Player& player) {
  const Envelope envelope{note.length, 0.3, 0.35};
  std::array<Saw, 2> saws;
  std::array<LowPass, 2> first, second;
  for_each_sample(
      note, envelope.seconds(), player.out.frames(), player.sr, [&](std::size_t i, double time) {
        const double cutoff = 900.0 + 500.0 * std::sin(kTwoPi * 0.23 * (note.start + time));
        std::array<double, 2> side;
        for (std::size_t s = 0; s < side.size(); ++s) {
          const double cents = s == 0 ? -0.07 : 0.07;
          const double raw = saws[s](hertz(note.pitch + player.tuning + cents), player.sr);
          side[s] = second[s](first[s](raw, cutoff, player.sr), cutoff, player.sr);
        }
        const double gain = 0.14 * note.velocity * envelope(time);
        player.add_wide(i, gain * side[0], gain * side[1]);
      });
}

void lead(const Note& note, Player& player) {
  const Envelope envelope{note.length, 0.012, 0.08};
  Saw saw;
  LowPass filter;
  for_each_sample(
      note, envelope.seconds(), player.out.frames(), player.sr, [&](std::size_t i, double time) {
        const double vibrato =
            0.12 * std::sin(kTwoPi * 5.4 * time) * std::clamp(time - 0.25, 0.0, 1.0);
        const double raw = saw(hertz(note.pitch + player.tuning + vibrato), player.sr);
        const double cutoff = 1200.0 + 2600.0 * decay(time, 0.2);
        player.add(i, 0.2 * note.velocity * envelope(time) * filter(raw, cutoff, player.sr));
      });
}

/// Echoes on dotted eighths, from side to side.
void add_delay(Stereo& sound, double seconds_per_beat, double sr) {
  constexpr double kFeedback = 0.42;
  const auto distance = static_cast<std::size_t>(std::lround(0.75 * seconds_per_beat * sr));
  for (std::size_t i = distance; i < sound.frames(); ++i) {
    const double left = sound.left[i - distance];
    sound.left[i] += kFeedback * sound.right[i - distance];
    sound.right[i] += kFeedback * left;
  }
}

double tuning_of(Instrument instrument, std::size_t variation) {
  constexpr std::array<double, 3> kDrums = {0.0, 3.0, -2.0};
  constexpr std::array<double, 3> kOctaves = {0.0, 12.0, -12.0};
  const bool drum = instrument == Instrument::kKick || instrument == Instrument::kSnare ||
                    instrument == Instrument::kHats;
  return (drum ? kDrums : kOctaves)[variation % 3];
}

void play_note(Instrument instrument, const Note& note, Player& player) {
  switch (instrument) {
    case Instrument::kKick:
      return kick(note, player);
    case Instrument::kSnare:
      return snare(note, player);
    case Instrument::kHats:
      return hats(note, player);
    case Instrument::kBass:
      return bass(note, player);
    case Instrument::kPads:
      return pads(note, player);
    case Instrument::kLead:
      return lead(note, player);
  }
}

}  // namespace

double keep_below(Stereo& sound, double ceiling) {
  double peak = 0.0;
  for (std::size_t i = 0; i < sound.frames(); ++i) {
    peak = std::max({peak, std::abs(sound.left[i]), std::abs(sound.right[i])});
  }
  if (peak <= ceiling) return 1.0;
  for (auto* side : {&sound.left, &sound.right}) {
    for (double& value : *side) value *= ceiling / peak;
  }
  return ceiling / peak;
}

std::string name_of(Instrument instrument) {
  constexpr std::array<const char*, kInstruments> kNames = {"Kick", "Snare", "Bass",
                                                            "Pads", "Lead",  "Hats"};
  return kNames[static_cast<std::size_t>(instrument)];
}

Stereo play(Instrument instrument, std::size_t variation, const std::vector<Note>& notes,
            double seconds_per_beat, std::size_t frames, double sr, Random& random) {
  Stereo sound(frames);
  Player player{sound, sr, place_of(instrument, variation), tuning_of(instrument, variation),
                random};
  for (const Note& note : notes) play_note(instrument, note, player);
  if (instrument == Instrument::kLead) add_delay(sound, seconds_per_beat, sr);
  keep_below(sound, 0.9);
  return sound;
}

}  // namespace demo
