#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "allocation/history_decays.hpp"
#include "allocation/rings.hpp"
#include "allocation/spectral_frames.hpp"

namespace verdel::internal {

/// A past frame with an onset in it: how far back, and what it weighs now.
struct PastOnset {
  std::size_t delay;
  float weight;
};
/// The onsets that a frame looks back to.
struct PastOnsets {
  std::array<PastOnset, C14_HISTORY_DELAYS.size()> past;
  std::size_t count = 0;
};

/// Fourth step: the frames in which a stem strikes, by a jump of the support in the onset band
/// above its recent mean, in a broad spectrum.
///
/// In: the block's support, and the band's strength kBack frames before it. Out: the onsets of the
/// last kRingFrames frames.
class StemOnsets {
 public:
  static constexpr std::size_t kBack = C14_ONSET_BASELINE_FRAMES;

  StemOnsets(const CellRing& support, std::size_t stems, int sr);

  void find(const Block& block);

  /// The onsets of a stem that reach a frame through one of the history's delays.
  PastOnsets before(std::size_t stem, std::size_t frame) const;

 private:
  /// Bins whose frequency lies in the onset band; both edges of the band count.
  struct BinRange {
    std::size_t first, stop;
  };
  static BinRange transient_band(int sr);
  double strength(std::size_t stem, std::size_t frame) const;
  double flatness(std::size_t stem, std::size_t frame, double strength) const;
  double baseline(std::size_t stem, std::size_t frame) const;

  const CellRing& support_;
  std::size_t stems_;
  BinRange band_;
  HistoryDecays decays_;
  FrameRing<double> strengths_, onsets_;
};

}  // namespace verdel::internal
