#pragma once

#include <cstdint>

namespace demo {

/// A small generator of random numbers that gives the same series on every machine (SplitMix64,
/// Steele, Lea & Flood 2014).
class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}

  /// Evenly spread over -1 .. 1: white noise.
  double noise() { return static_cast<double>(next() >> 11) * 0x1p-52 - 1.0; }

 private:
  std::uint64_t next() {
    std::uint64_t z = (state_ += 0x9e3779b97f4a7c15u);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
  }

  std::uint64_t state_;
};

}  // namespace demo
