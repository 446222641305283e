#pragma once

#include <string>
#include <variant>
#include <vector>

#include "dynamics.hpp"
#include "equaliser.hpp"
#include "reverb.hpp"

namespace demo {

/// Splits at the crossovers (Linkwitz & Riley 1976, fourth order; all-passes keep the bands in
/// step, so that they add up to an all-pass) and compresses each band.
struct MultibandCompressor {
  std::vector<double> crossovers_hz;
  std::vector<Compressor> bands;  ///< one more
};

inline constexpr double kFadeSeconds = 0.5;

/// One device of a chain. It takes the sum of the stems, or of those in `only`: a room that stands
/// behind one stem alone, say. It may be bypassed up to `begin`, where it is faded in.
struct Device {
  std::variant<Equaliser, MidSideEqualiser, MultibandCompressor, Compressor, Limiter, Saturation,
               FaderRides, Reverb>
      what;
  std::vector<std::string> only = {};
  double begin = 0.0;  ///< as a share of the song
};
using Chain = std::vector<Device>;

struct Stem {
  std::string name;
  Stereo sound;
};

/// Plays the stems through the chain, in place. They add up to what becomes of their sum: a device
/// that adds plays each for itself, one that multiplies hears the sum and gives each its factor.
void play_through(const Chain& chain, std::vector<Stem>& stems, double sr);

Stereo sum_of(const std::vector<Stem>& stems);

/// The demo's master: bus compressor, a little room, saturation, and a limiter that holds every
/// sample below full scale. None of it delays the sound, and none of it can be undone by one gain,
/// so the mix holds what no tap explains.
Chain demo_master();
/// What may stand ahead of it: a low cut, less mud, more presence and air.
Equaliser demo_equaliser();

}  // namespace demo
