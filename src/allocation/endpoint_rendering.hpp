#pragma once

#include <cstddef>

#include "allocation/source_scoring.hpp"
#include "allocation/spectral_frames.hpp"

namespace verdel::internal {

/// Third step: every stem's share of the residual under both endpoints, as sound.
///
/// In: the block's scores. Out: hops of the shares, four behind the block's frames, and seven more
/// once the signal's last frame is in.
class EndpointRendering {
 public:
  EndpointRendering(const ChannelSpectra& spectra, const SourceScoring& scoring,
                    const SpectralTransform& transform);

  /// The block that was scored last.
  void render(const Block& block);

  /// A stem's share under an endpoint, rows 2 * stem + endpoint.
  const HopRing<float>& shares() const { return shares_; }
  /// The sum of the shares under endpoint 10: the residual as it was allocated.
  const HopRing<double>& allocated() const { return allocated_; }
  /// Whether the stem's shares are zero throughout under a frame, and so is what hangs on them.
  bool is_silent(std::size_t stem, std::size_t frame) const;

 private:
  bool may_be_left_out(std::size_t stem, std::size_t frame) const;
  void render_frame(std::size_t stem, std::size_t frame);
  void finish(std::size_t stem, std::size_t frame);

  const ChannelSpectra& spectra_;
  const SourceScoring& scoring_;
  const SpectralTransform& transform_;
  PairOverlap overlap_;
  HopRing<float> shares_;
  HopRing<double> allocated_{1};
  FrameRing<std::size_t> left_out_;  // frames left out up to this one
  PairBuffers buffers_;
};

}  // namespace verdel::internal
