#pragma once

#include <cassert>
#include <cstddef>

#include "allocation/c14_constants.hpp"

namespace verdel::internal {

/// How the cells of one spectrum lie in memory: in tiles of neighbouring bins, [tile][frame][bin
/// of the tile]. A tile's recent frames stay in the near cache while a kernel runs through time,
/// and a moving average over frames is a vector over the tile's bins.
///
/// The last tile holds the one bin that is left (Nyquist) and is stored sixteen wide, a cache line
/// of floats; its other columns are scenery: computed along, never read out.
class CellGrid {
 public:
  static constexpr std::size_t kTileBins = 64;
  static constexpr std::size_t kLastTileColumns = 16;
  static constexpr std::size_t kTiles = (C14_BINS - 1) / kTileBins + 1;
  static constexpr std::size_t kRowColumns = (kTiles - 1) * kTileBins + kLastTileColumns;
  static_assert((C14_BINS - 1) % kTileBins == 0, "one bin is left over");

  explicit CellGrid(std::size_t frames) : frames_(frames) {}

  std::size_t frames() const { return frames_; }
  /// Values to store for one number a cell, scenery included.
  std::size_t stored_cells() const { return kRowColumns * frames_; }
  /// Cells in the sense of the spectrum, for budgets.
  std::size_t cells() const { return C14_BINS * frames_; }

  static constexpr std::size_t first_bin(std::size_t tile) { return tile * kTileBins; }
  /// Stored width of a tile.
  static constexpr std::size_t columns(std::size_t tile) {
    return tile + 1 < kTiles ? kTileBins : kLastTileColumns;
  }
  /// Width of a tile that counts.
  static constexpr std::size_t bins(std::size_t tile) { return tile + 1 < kTiles ? kTileBins : 1; }

  /// Where the columns of one frame of a tile begin in an array of one value a cell. In a spectrum
  /// (two values a cell) they begin at twice that: the real parts, then the imaginary ones.
  std::size_t offset(std::size_t tile, std::size_t frame) const {
    assert(tile < kTiles && frame <= frames_);
    return first_bin(tile) * frames_ + frame * columns(tile);
  }
  /// Where one cell stands in an array of one value a cell.
  std::size_t index(std::size_t bin, std::size_t frame) const {
    const std::size_t tile = bin / kTileBins;
    return offset(tile, frame) + bin - first_bin(tile);
  }

 private:
  std::size_t frames_;
};

}  // namespace verdel::internal
