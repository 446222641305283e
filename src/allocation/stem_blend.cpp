#include <algorithm>

#include "allocation/phases.hpp"
#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

VERDEL_INLINE void weigh_columns(const double* __restrict gate, std::size_t columns,
                                 double* __restrict bins) {
  for (std::size_t b = 0; b < columns; ++b) {
    bins[2 * b] *= gate[b];
    bins[2 * b + 1] *= gate[b];
  }
}

void weigh_frame(const ChannelRender& render, std::size_t frame, FrameBuffers& buffers) {
  for (std::size_t tile = 0; tile < CellGrid::kTiles; ++tile) {
    run_kernel<weigh_columns>(render.gate.data() + render.grid.offset(tile, frame),
                              CellGrid::columns(tile),
                              buffers.bins() + 2 * CellGrid::first_bin(tile));
  }
}

}  // namespace

void blend_stem(const ChannelRender& render, std::size_t index, std::span<double> rendered) {
  const std::span<const float> output09 = render.signal_row(render.output09, index);
  const std::span<const float> output10 = render.signal_row(render.output10, index);
  const std::size_t start = render.job.start;
  const std::size_t stop = render.job.stop;
  FrameBuffers buffers;
  OverlapAdd overlap(render.transform, render.samples());
  const auto store = [&](std::size_t first, std::span<const double> tail) {
    const std::size_t from = std::max(first, start);
    const std::size_t to = std::min(first + tail.size(), stop);
    for (std::size_t i = from; i < to; ++i) {
      rendered[i - start] = static_cast<double>(output10[i]) + tail[i - first];
    }
  };
  for (std::size_t frame = 0; frame < render.grid.frames(); ++frame) {
    if (frame % 256 == 0) render.stop.check();
    const std::size_t centre = frame * C14_HOP;
    const bool reaches_span = centre + C14_FFT_SIZE / 2 > start && centre < stop + C14_FFT_SIZE / 2;
    if (!reaches_span || render.gate_opens[frame] == 0) {
      overlap.add_zeros(store);
      continue;
    }
    transform_frame_difference(render.transform, output09, output10, frame, buffers);
    weigh_frame(render, frame, buffers);
    overlap.add(buffers, store);
  }
  overlap.finish(store);
}

}  // namespace verdel::internal
