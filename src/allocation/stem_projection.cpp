#include "allocation/phases.hpp"
#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

// A share that varies from cell to cell smears through the inverse transform; this is what really
// arrived: the real part of added * conj(residual) over the residual's power, 0 if it works
// against the residual.
VERDEL_INLINE void project_columns(const double* __restrict added, const float* __restrict residual,
                                   std::size_t columns, float* __restrict scores) {
  const float* __restrict residual_i = residual + columns;
  for (std::size_t b = 0; b < columns; ++b) {
    const float power = residual[b] * residual[b] + residual_i[b] * residual_i[b];
    const double divisor =
        static_cast<double>(power) > C14_POWER_FLOOR ? static_cast<double>(power) : C14_POWER_FLOOR;
    const double projection = (added[2 * b] * static_cast<double>(residual[b]) +
                               added[2 * b + 1] * static_cast<double>(residual_i[b])) /
                              divisor;
    scores[b] = static_cast<float>(projection > 0.0 ? projection : 0.0);
  }
}

void project_endpoint(const ChannelRender& render, std::span<const float> output,
                      std::span<const double> source, std::span<float> scores) {
  FrameBuffers buffers;
  for (std::size_t frame = 0; frame < render.grid.frames(); ++frame) {
    if (frame % 256 == 0) render.stop.check();
    transform_frame_difference(render.transform, output, source, frame, buffers);
    for (std::size_t tile = 0; tile < CellGrid::kTiles; ++tile) {
      const std::size_t at = render.grid.offset(tile, frame);
      run_kernel<project_columns>(buffers.bins() + 2 * CellGrid::first_bin(tile),
                                  render.residual_spectrum.data() + 2 * at, CellGrid::columns(tile),
                                  scores.data() + at);
    }
  }
}

}  // namespace

void project_stem(ChannelRender& render, std::size_t index) {
  const auto source = render.job.source_models[index];
  project_endpoint(render, render.signal_row(render.output09, index), source,
                   render.scores09.row(index));
  project_endpoint(render, render.signal_row(render.output10, index), source,
                   render.scores10.row(index));
}

}  // namespace verdel::internal
