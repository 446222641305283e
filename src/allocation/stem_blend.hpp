#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "allocation/channel_job.hpp"
#include "allocation/stem_projection.hpp"

namespace verdel::internal {

/// Last step: the stems. A stem is its model, its share under endpoint 10, and as much of the way
/// to endpoint 09 as the gate opens.
///
/// In: hops of the shares under the frame, one projected frame and its gate. Out: a hop of all
/// stems, four behind the frame, and seven more after the signal's last frame.
class StemBlend {
 public:
  StemBlend(const ChannelJob& job, const EndpointRendering& endpoints,
            const SpectralTransform& transform);

  /// Adds the frame's tails; without it the frame has none.
  void add(std::size_t frame, const FrameProjection& projected, std::span<const float> gate);

  /// To be called once a frame, in order, and for the PairOverlap::frames_after() that follow:
  /// calls emit(hop) when a hop of all stems stands in hop_samples, of the signal's first sample
  /// on.
  template <class Emit>
  void finish(std::size_t frame, Emit emit) {
    std::size_t finished = 0;
    bool any = false;
    for (std::size_t pair = 0; pair < pairs_; ++pair) {
      overlap_.finish(
          pair, frame,
          [&](std::size_t hop, const double* weight, const double* even, const double* odd) {
            finish_stem(2 * pair, hop, weight, even);
            if (2 * pair + 1 < job_.stems()) finish_stem(2 * pair + 1, hop, weight, odd);
            finished = hop;
            any = true;
          });
    }
    if (any) emit(finished);
  }
  RowsView<const double> stems() const { return stems_.view(); }  ///< [stem][C14_HOP]

 private:
  void finish_stem(std::size_t stem, std::size_t hop, const double* weight, const double* tail);

  const ChannelJob& job_;
  const EndpointRendering& endpoints_;
  SignalExtent extent_;
  std::size_t pairs_;
  PairOverlap overlap_;
  PairBuffers buffers_;
  AudioArray stems_;
};

}  // namespace verdel::internal
