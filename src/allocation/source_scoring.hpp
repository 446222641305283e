#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "allocation/channel_spectra.hpp"
#include "allocation/history_decays.hpp"
#include "allocation/rings.hpp"

namespace verdel::internal {

/// The two endpoints of the allocation: 09 credits a stem with what it was a short while ago, 10
/// only as far as it is still present.
inline constexpr std::size_t kEndpoints = 2;

/// What the stems claim of the residual in the frames of one block.
struct BlockScores {
  explicit BlockScores(std::size_t stems);

  Block block;
  /// [endpoint]: claims, [stem * Block::kFrames + frame of the block][Tile::kRow].
  std::array<Array2D<float>, kEndpoints> claims;
  /// [endpoint]: residual over the claims' sum, [frame of the block][2 * Tile::kRow], in each tile
  /// real parts, then imaginary parts: a claim times this is the stem's share.
  std::array<Array2D<float>, kEndpoints> unit_shares;
  /// The least sum of claims of either endpoint in each frame.
  std::array<double, Block::kFrames> least_total{};
};

/// Second step: how much of the residual each stem can claim in each cell, under either endpoint.
///
/// In: spectra, from kBack frames before the block to kAhead behind it. Out: the block's scores,
/// and the support of the last kRingFrames frames.
class SourceScoring {
 public:
  static constexpr std::size_t kAhead = C14_COHERENCE_SMOOTH_FRAMES / 2;
  static constexpr std::size_t kBack = C14_HISTORY_DELAYS.back() + kAhead;
  static_assert(kBack + Block::kFrames + kAhead <= kRingFrames);

  SourceScoring(const ChannelSpectra& spectra, int sr);

  /// The next block.
  void score(const Block& block);

  const BlockScores& scores() const { return scores_; }
  const CellRing& support() const { return support_; }  ///< rows: stems

 private:
  void score_tile(std::size_t tile);
  void score_stem(std::size_t stem, std::size_t tile);

  const ChannelSpectra& spectra_;
  HistoryDecays decays_;
  CellRing residual_powers_{1}, powers_, support_;  // powers: one over the smoothed ones
  BlockScores scores_;
};

}  // namespace verdel::internal
