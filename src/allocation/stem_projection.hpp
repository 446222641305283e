#pragma once

#include <array>
#include <cstddef>

#include "allocation/endpoint_rendering.hpp"
#include "allocation/rings.hpp"
#include "allocation/spectral_frames.hpp"

namespace verdel::internal {

/// What really arrived of the shares in one frame: a share that varies from cell to cell smears
/// through the inverse transform.
struct FrameProjection {
  explicit FrameProjection(std::size_t stems);

  /// [endpoint]: the part of the allocated residual that the stem's share is, [stem][Tile::kRow],
  /// not below 0; and its sum over the stems.
  std::array<Array2D<float>, kEndpoints> projections;
  std::array<Array2D<double>, kEndpoints> totals;
  /// Spectrum of a stem's share under endpoint 09 minus that under 10, [stem][2 * Tile::kRow]: real
  /// parts, then imaginary parts from Tile::kRow on.
  Array2D<float> differences;
};

/// Sixth step, for a frame with candidates: the shares against the residual as allocated.
///
/// In: hops of the shares from kBackHops before the frame's to kAheadHops behind. Out: one frame.
class StemProjection {
 public:
  static constexpr std::size_t kBackHops = kFrameHops / 2, kAheadHops = kFrameHops / 2 - 1;

  StemProjection(const ChannelSpectra& spectra, const EndpointRendering& endpoints,
                 const SpectralTransform& transform);

  void project(std::size_t frame);
  const FrameProjection& projected() const { return projected_; }

 private:
  void project_stem(std::size_t stem, std::size_t frame);

  const ChannelSpectra& spectra_;
  const EndpointRendering& endpoints_;
  const SpectralTransform& transform_;
  FrameProjection projected_;
  Array2D<float> unit_;  // what a spectrum is multiplied with to be measured against the residual
  FrameBuffers buffers_;
  PairBuffers pair_;
};

}  // namespace verdel::internal
