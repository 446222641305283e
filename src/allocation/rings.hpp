#pragma once

#include <cassert>
#include <cstddef>
#include <span>

#include "allocation/c14_constants.hpp"
#include "signal/arrays.hpp"

/// The three shapes of memory that a streamed render works in.
namespace verdel::internal {

/// A stretch of frames that goes through all phases together, stop excluded.
struct Block {
  static constexpr std::size_t kFrames = 64;
  std::size_t first = 0, stop = 0;
  std::size_t length() const { return stop - first; }
};

/// Sixteen neighbouring bins, a cache line of floats: what a kernel works on at a time. The last
/// tile holds the one bin that is left (Nyquist); its other columns are scenery: computed along,
/// never read out.
struct Tile {
  static constexpr std::size_t kBins = 16;
  static constexpr std::size_t kCount = (C14_BINS - 1) / kBins + 1;
  static constexpr std::size_t kRow = kCount * kBins;  ///< columns of a whole frame
  static_assert((C14_BINS - 1) % kBins == 0, "one bin is left over");
};

/// How far back anything is looked up again: frames, and hops of 256 samples.
inline constexpr std::size_t kRingFrames = 256;
static_assert(kRingFrames % Block::kFrames == 0, "a block lies in one piece");

/// The last kRingFrames frames of a value a cell, or of two, for each of several rows (stems). The
/// frames of one row and tile lie side by side, so that a kernel runs through time in the near
/// cache.
template <std::size_t kValues>
class TileRing {
 public:
  static constexpr std::size_t kWidth = kValues * Tile::kBins;  ///< floats of a frame

  explicit TileRing(std::size_t rows)
      : frames_(Array2D<float>::zeros(rows * Tile::kCount, kRingFrames * kWidth + kPadding)) {}

  /// The ring of one row and tile; a frame's values begin at offset(frame).
  float* tile(std::size_t row, std::size_t tile) {
    return frames_.row(row * Tile::kCount + tile).data();
  }
  const float* tile(std::size_t row, std::size_t tile) const {
    return frames_.row(row * Tile::kCount + tile).data();
  }
  static constexpr std::size_t offset(std::size_t frame) { return frame % kRingFrames * kWidth; }

 private:
  // Rings a power of two apart would fight for the same sets of a cache.
  static constexpr std::size_t kPadding = Tile::kBins * (kValues == 1 ? 1 : 5);
  Array2D<float> frames_;
};

/// Real parts, then imaginary parts.
using SpectrumRing = TileRing<2>;
using CellRing = TileRing<1>;

/// The last kRingFrames hops of a signal, for each of several rows.
template <class Sample>
class HopRing {
 public:
  explicit HopRing(std::size_t rows) : hops_(Array2D<Sample>::zeros(rows, kRingFrames * C14_HOP)) {}

  Sample* hop(std::size_t row, std::size_t hop) {
    return hops_.row(row).data() + hop % kRingFrames * C14_HOP;
  }
  const Sample* hop(std::size_t row, std::size_t hop) const {
    return hops_.row(row).data() + hop % kRingFrames * C14_HOP;
  }

 private:
  Array2D<Sample> hops_;
};

/// One number a frame, for as many frames back as a ring has.
template <class Value>
class FrameRing {
 public:
  explicit FrameRing(std::size_t rows) : values_(Array2D<Value>::zeros(rows, kRingFrames)) {}
  Value& at(std::size_t row, std::size_t frame) { return values_.row(row)[frame % kRingFrames]; }
  const Value& at(std::size_t row, std::size_t frame) const {
    return values_.row(row)[frame % kRingFrames];
  }

 private:
  Array2D<Value> values_;
};

}  // namespace verdel::internal
