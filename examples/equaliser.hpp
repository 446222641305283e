#pragma once

#include <vector>

#include "instruments.hpp"

/// Equalisers of second-order sections.
namespace demo {

/// One band of an equaliser. `db` matters to a peak and to the shelves.
struct EqBand {
  enum class Kind { kPeak, kLowShelf, kHighShelf, kLowPass, kHighPass, kAllPass };

  Kind kind = Kind::kPeak;
  double hz = 1000.0;
  double db = 0.0;
  double q = 0.7071067811865476;
};

/// A digital section of second order, a0 is 1: the bilinear transform of the analogue prototypes
/// (Bristow-Johnson, "Cookbook formulae for audio EQ biquad filter coefficients").
struct Biquad {
  double b0, b1, b2, a1, a2;

  Biquad(const EqBand& band, double sr);
  void play(std::vector<double>& samples) const;
  double response_db(double hz, double sr) const;
};

/// Both channels through the same bands. With `linear_phase` each section plays forwards with half
/// of its dB and then backwards, so that the phases cancel.
struct Equaliser {
  std::vector<EqBand> bands;
  bool linear_phase = false;

  void process(Stereo& sound, double sr) const;
  double response_db(double hz, double sr) const;
};

/// The sum of the channels, and their difference, through bands of their own; `side_db` widens.
struct MidSideEqualiser {
  std::vector<EqBand> mid, side;
  double side_db = 0.0;

  void process(Stereo& sound, double sr) const;
};

}  // namespace demo
