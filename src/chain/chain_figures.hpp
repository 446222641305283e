#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "alignment/tap_alignment.hpp"
#include "chain/hear_chain.hpp"

namespace verdel::internal {

/// One response at the frequencies of its owner.
struct ResponseFigures {
  std::string name;                    ///< "master", "mid", "left", ...
  std::vector<double> db;              ///< 0: the level before
  std::vector<double> phase;           ///< radians
  std::vector<double> uncertainty_db;  ///< standard deviation of `db`, never below 0.3 dB
};

/// An equaliser as it is shown: every bin of its fit in the bass, 24 points to the octave above.
struct EqualiserFigures {
  std::vector<double> hz;  ///< from 20 Hz on
  std::vector<ResponseFigures> responses;
};

/// A gain as it is shown, relative to the engine's, every 50 ms or so.
struct GainFigures {
  std::vector<std::string> channels;  ///< "left", "right"; empty where one gain is for all channels
  std::vector<double> hz;             ///< a centre per band
  double seconds_per_point = 0.0;     ///< the first point is at 0 s
  std::vector<std::vector<std::vector<double>>> db;  ///< [channels, or one][bands][points]
};

std::string_view kind_of(const FineGain& gain);     ///< "fine", "bands"
std::string_view kind_of(const TapFilter& filter);  ///< "eq", "effect"

EqualiserFigures equaliser_figures(const CurveFinding& curve);
EqualiserFigures equaliser_figures(const TapFilter& filter);
GainFigures gain_figures(const FineGain& gain, int sr);

/// The taps that the stage moved, in their order.
std::vector<AppliedLag> moves_of(const ChainFinding& finding, const std::vector<std::string>& taps);

}  // namespace verdel::internal
