#pragma once

#include "instruments.hpp"

namespace demo {

/// A room: four combs side by side and two all-passes behind them for each channel (Schroeder
/// 1962), the combs damped. The dry sound stays in.
struct Reverb {
  double wet = 0.12;
  double feedback = 0.82;  ///< of the combs; the nearer to 1, the longer it rings

  void process(Stereo& sound, double sr) const;
};

}  // namespace demo
