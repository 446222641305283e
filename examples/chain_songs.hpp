#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "master_chain.hpp"
#include "song.hpp"

namespace demo {

/// What is bounced as one tap: each instrument with its variation.
struct Tap {
  std::string name;
  std::vector<std::pair<Instrument, std::size_t>> voices;
  double db = 0.0;
};

enum class LineUp {
  kBand,        ///< a tap for each instrument
  kDrumsAsOne,  ///< one tap for all drums
  kToTheSides,  ///< chords to the right, melody and hats to the left
};

/// A song and the chain that it was mastered with.
struct ChainSong {
  std::string name;
  std::string what;  ///< the chain, in words
  Chain chain;
  std::uint64_t seed = 1;
  Arrangement arrangement = {};
  LineUp line_up = LineUp::kBand;
  std::string unbounced = {};  ///< in the mix, and nobody bounced it
  std::string late = {};       ///< bounced 7 ms late
  double seconds = 45.0;
  int rate = 44100;
};

std::vector<ChainSong> chain_songs();
std::vector<Tap> taps_of(const ChainSong& song);

}  // namespace demo
