#pragma once

#include <vector>

#include "instruments.hpp"

/// What turns the sound up and down: each looks at a sum and gives the factor for every sample of
/// either channel, so that what happens to the sum can be done to each of its parts.
namespace demo {

/// Above the threshold `ratio` decibels become one. The power is followed with one pole, quickly
/// upwards and slowly down; both channels move together unless they are not `linked`.
struct Compressor {
  double threshold_db = -24.0, ratio = 2.5, makeup_db = 7.0;
  double attack = 0.008, release = 0.14;  ///< seconds
  bool linked = true;

  Stereo gains(const Stereo& sum, double sr) const;
};

/// Holds every sample below the ceiling: falls to where the loudest of the next `lookahead` seconds
/// asks for, recovers slowly, and is smoothed over the same time.
struct Limiter {
  double drive_db = 0.0, ceiling = 0.89;
  double release = 0.08, lookahead = 0.0;  ///< seconds

  Stereo gains(const Stereo& sum, double sr) const;
};

/// A hyperbolic tangent, as the factor from the sum to what becomes of it.
struct Saturation {
  double drive = 0.7;

  Stereo gains(const Stereo& sum, double sr) const;
};

/// A hand on the fader: sinusoids in dB.
struct FaderRides {
  struct Ride {
    double period, db, phase;  ///< seconds, dB, radians
  };
  std::vector<Ride> rides;

  Stereo gains(const Stereo& sum, double sr) const;
};

}  // namespace demo
