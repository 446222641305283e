#pragma once

#include <cstddef>
#include <vector>

#include "allocation/rings.hpp"
#include "allocation/stem_onsets.hpp"

namespace verdel::internal {

/// Sixteen bins of a frame in which a stem's support looks like the release tail of a transient.
struct TailCandidate {
  std::size_t stem, tile;
  alignas(64) float gate[Tile::kBins];  ///< how far each bin would open, 0 .. 1
};

/// Fifth step: the cells that may be a release tail, as far as support tells: the stem was much
/// stronger a moment ago; it does not come back soon; what just happened here was mostly this stem,
/// and came from an onset; and it is not the bass.
///
/// In: support, from kBack frames before to kAhead behind, and onsets from kBack before. Out: the
/// candidates of the block, frame by frame. Most music has few.
class TailCandidates {
 public:
  static constexpr std::size_t kAhead = C14_LATER_SUPPORT_FRAMES;
  static constexpr std::size_t kBack = C14_HISTORY_DELAYS.back();
  /// The last block of a signal takes the frames that waited for kAhead more.
  static constexpr std::size_t kMostFrames = Block::kFrames + kAhead;
  static_assert(kBack + Block::kFrames + kAhead < kRingFrames);

  TailCandidates(const CellRing& support, const StemOnsets& onsets, std::size_t stems,
                 std::size_t frames, int sr);

  void find(const Block& block);
  /// Of a frame of the block found last, ordered by tile, then stem.
  const std::vector<TailCandidate>& of(std::size_t frame) const {
    return found_[frame - block_.first];
  }

 private:
  class TileFrame;
  void find_in_tile(std::size_t tile);
  void bring_near(std::size_t tile, std::size_t frame) const;

  const CellRing& support_;
  const StemOnsets& onsets_;
  std::size_t stems_, frames_, first_tile_ = 0;
  HistoryDecays decays_;
  std::vector<float> bass_fade_;  // [Tile::kRow]
  Block block_;
  std::vector<PastOnsets> pasts_;  // [frame of the block][stem]
  std::vector<char> is_behind_;    // [frame of the block]: whether any stem's onset reaches it
  Array2D<float> histories_;       // [stem][Tile::kBins], of one frame of a tile
  std::vector<char> has_history_;
  std::vector<std::vector<TailCandidate>> found_;
};

}  // namespace verdel::internal
