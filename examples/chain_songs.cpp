#include "chain_songs.hpp"

namespace demo {
namespace {

using Kind = EqBand::Kind;

EqBand peak(double hz, double db, double q) {
  return {.kind = Kind::kPeak, .hz = hz, .db = db, .q = q};
}
EqBand low_shelf(double hz, double db) {
  return {.kind = Kind::kLowShelf, .hz = hz, .db = db};
}
EqBand high_shelf(double hz, double db) {
  return {.kind = Kind::kHighShelf, .hz = hz, .db = db};
}
EqBand low_cut(double hz) {
  return {.kind = Kind::kHighPass, .hz = hz};
}

constexpr Compressor kGlue{
    .threshold_db = -24.0, .ratio = 2.5, .makeup_db = 5.0, .attack = 0.012, .release = 0.16};
constexpr Limiter kLimiter{.drive_db = 3.0, .ceiling = 0.85, .release = 0.06, .lookahead = 0.0015};

/// A bright, tight master that most of these songs could have had.
Equaliser bright() {
  return {{low_cut(28.0), low_shelf(110.0, -2.5), peak(320.0, -3.0, 0.9), peak(2800.0, 2.0, 0.8),
           high_shelf(9000.0, 4.0)}};
}

Chain multiband() {
  const Compressor low{
      .threshold_db = -30.0, .ratio = 3.0, .makeup_db = 4.0, .attack = 0.02, .release = 0.2};
  const Compressor low_mid{
      .threshold_db = -32.0, .ratio = 2.0, .makeup_db = 2.0, .attack = 0.012, .release = 0.12};
  const Compressor high_mid{
      .threshold_db = -36.0, .ratio = 2.5, .makeup_db = 3.5, .attack = 0.006, .release = 0.09};
  const Compressor high{
      .threshold_db = -42.0, .ratio = 3.0, .makeup_db = 7.0, .attack = 0.003, .release = 0.06};
  return {{Equaliser{{peak(75.0, 2.5, 1.1), peak(450.0, -3.5, 1.0), high_shelf(7000.0, 3.0)}}},
          {MultibandCompressor{{120.0, 900.0, 5000.0}, {low, low_mid, high_mid, high}}}};
}

MidSideEqualiser mid_side_eq() {
  return {.mid = {low_shelf(90.0, 2.0), peak(2500.0, -2.5, 0.9)},
          .side = {low_cut(140.0), high_shelf(6000.0, 4.5)},
          .side_db = 2.5};
}

Chain narrow_cuts() {
  const Compressor quick{
      .threshold_db = -22.0, .ratio = 3.0, .makeup_db = 4.0, .attack = 0.002, .release = 0.05};
  return {{Equaliser{{low_cut(32.0), peak(62.0, -4.0, 5.0), peak(247.0, -6.0, 8.0),
                      peak(1180.0, -5.0, 7.0), peak(3400.0, -4.5, 6.0), high_shelf(10000.0, 2.0)}}},
          {quick},
          {kLimiter}};
}

constexpr Reverb kRoom{.wet = 0.5};
constexpr Reverb kHall{.wet = 0.3, .feedback = 0.86};

Equaliser telephone() {
  return {{low_cut(180.0), peak(1400.0, 5.0, 0.9), high_shelf(6000.0, -5.0)}};
}

/// Another tempo, key and playing for each, and what only one of them has.
void set_apart(std::vector<ChainSong>& songs) {
  for (std::size_t i = 0; i < songs.size(); ++i) {
    ChainSong& song = songs[i];
    const int step = static_cast<int>(i);
    song.arrangement = {.beats_per_minute = 84.0 + (step * 29) % 60,
                        .transpose = (step * 5) % 11 - 5,
                        .looseness = 0.006,
                        .rest = 0.15,
                        .first_chord = step % 4};
    if (song.name == "96k") song.rate = 96000;
    if (song.name == "drum-room") song.line_up = LineUp::kDrumsAsOne;
    if (song.name == "lr-apart") song.line_up = LineUp::kToTheSides;
    if (song.name == "missing-tap") song.unbounced = "Lead";
    if (song.name == "late-tap") song.late = "Snare";
  }
}

}  // namespace

std::vector<ChainSong> chain_songs() {
  const Compressor apart{.threshold_db = -32.0,
                         .ratio = 5.0,
                         .makeup_db = 9.0,
                         .attack = 0.004,
                         .release = 0.09,
                         .linked = false};
  const Compressor gentle{
      .threshold_db = -22.0, .ratio = 1.5, .makeup_db = 1.5, .attack = 0.03, .release = 0.25};
  const FaderRides rides{{{17.0, 2.0, 0.3}, {5.3, 1.0, 1.1}, {2.1, 0.5, 2.0}}};
  Reverb quieter = kHall;
  quieter.wet *= 0.5;

  std::vector<ChainSong> songs{
      {"eq-compressor", "parametric EQ, compressor", {{bright()}, {kGlue}}, 11},
      {"eq-compressor-2",
       "parametric EQ, compressor, other music",
       {{Equaliser{{low_shelf(140.0, 3.5), peak(700.0, -3.0, 0.7), peak(3200.0, -2.0, 1.4),
                    high_shelf(8000.0, 3.0)}}},
        {Compressor{.threshold_db = -28.0,
                    .ratio = 4.0,
                    .makeup_db = 7.0,
                    .attack = 0.004,
                    .release = 0.09}}},
       12},
      {"multiband", "EQ, 4-band compressor", multiband(), 13},
      {"mid-side", "mid/side EQ, widening, limiter", {{mid_side_eq()}, {kLimiter}}, 14},
      {"saturation",
       "linear-phase EQ, gain, saturation",
       {{Equaliser{{low_shelf(100.0, 2.5), peak(400.0, -2.0, 0.8), high_shelf(8000.0, 3.0)}, true}},
        {Compressor{.ratio = 1.0, .makeup_db = 4.0}},
        {Saturation{.drive = 1.1}}},
       15},
      {"96k",
       "5-band EQ, compressor, 96 kHz",
       {{Equaliser{{low_cut(30.0), peak(90.0, 2.0, 1.0), peak(300.0, -3.0, 1.2),
                    peak(4500.0, 2.5, 0.9), high_shelf(12000.0, 4.0)}}},
        {kGlue}},
       16},
      {"fader-rides", "gain alone: slow fader rides", {{rides}}, 17},
      {"compressor", "gain alone: compressor", {{kGlue}}, 18},
      {"drum-room", "compressor, and a room on the drums alone", {{kRoom, {"Drums"}}, {kGlue}}, 19},
      {"reverb-send",
       "a reverb that several taps are sent to",
       {{kHall, {"Snare", "Lead"}}, {quieter, {"Pads", "Hats"}}, {gentle}},
       20},
      {"gentle",
       "gentle mastering EQ, 1.5:1",
       {{Equaliser{{low_shelf(80.0, 1.0), peak(300.0, -1.0, 0.7), high_shelf(10000.0, 1.5)}}},
        {gentle}},
       21},
      {"narrow-cuts", "narrow cuts, 2 ms compressor, limiter", narrow_cuts(), 22},
      {"lr-apart", "left and right compressed apart", {{apart}}, 23},
      {"tap-eq", "an EQ on one tap alone", {{telephone(), {"Lead"}}, {gentle}}, 24},
      {"eq-and-tap-eq",
       "master EQ, compressor, and an EQ on one tap alone",
       {{telephone(), {"Pads"}}, {bright()}, {kGlue}},
       25},
      {"eq-and-tap-room",
       "master EQ, compressor, and a room on one tap alone",
       {{kRoom, {"Snare"}}, {bright()}, {kGlue}},
       26},
      {"pumping",
       "gain alone: hard, quick compressor",
       {{Compressor{.threshold_db = -30.0,
                    .ratio = 6.0,
                    .makeup_db = 9.0,
                    .attack = 0.003,
                    .release = 0.08}}},
       27},
      {"bus-room",
       "EQ, a room on the whole sum, compressor",
       {{bright()}, {Reverb{}}, {kGlue}},
       28},
      {"clipping",
       "EQ, 9 dB into a clipper",
       {{bright()}, {Limiter{.drive_db = 9.0, .release = 0.0002}}},
       29},
      {"eq-automation",
       "EQ in the second half only, compressor",
       {{bright(), {}, 0.5}, {kGlue}},
       30},
      {"tap-compressor", "a compressor on one tap alone", {{apart, {"Bass"}}, {gentle}}, 31},
      {"tap-widening", "mid/side EQ on one tap alone", {{mid_side_eq(), {"Pads"}}, {gentle}}, 32},
      {"missing-tap", "EQ, compressor; one instrument without a tap", {{bright()}, {kGlue}}, 33},
      {"late-tap", "EQ, compressor; one tap 7 ms late", {{bright()}, {kGlue}}, 34},
  };
  set_apart(songs);
  return songs;
}

std::vector<Tap> taps_of(const ChainSong& song) {
  using enum Instrument;
  switch (song.line_up) {
    case LineUp::kDrumsAsOne:
      return {{"Drums", {{kKick, 0}, {kSnare, 0}, {kHats, 0}}},
              {"Bass", {{kBass, 0}}},
              {"Pads", {{kPads, 0}}},
              {"Lead", {{kLead, 0}}},
              {"Keys", {{kPads, 1}, {kLead, 2}}, -4.0}};
    case LineUp::kToTheSides:
      return {{"Kick", {{kKick, 0}}, -9.0}, {"Snare", {{kSnare, 1}}},
              {"Hats", {{kHats, 2}}, 6.0},  {"Bass", {{kBass, 2}}, -6.0},
              {"Pads", {{kPads, 1}}, 2.0},  {"Lead", {{kLead, 2}}, 2.0}};
    case LineUp::kBand:
      break;
  }
  return {{"Kick", {{kKick, 0}}}, {"Snare", {{kSnare, 0}}}, {"Hats", {{kHats, 0}}, 6.0},
          {"Bass", {{kBass, 0}}}, {"Pads", {{kPads, 0}}},   {"Lead", {{kLead, 0}}}};
}

}  // namespace demo
