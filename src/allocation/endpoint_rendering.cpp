#include "allocation/onset_history.hpp"
#include "allocation/phases.hpp"
#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

// The stem's share of one frame of a tile, as interleaved bins ready for the inverse transform.
VERDEL_INLINE void share_columns(const float* __restrict scores, const double* __restrict totals,
                                 const float* __restrict residual, std::size_t columns,
                                 double equal_share, double* __restrict bins) {
  const float* __restrict imaginary = residual + columns;
  for (std::size_t b = 0; b < columns; ++b) {
    const double share =
        _c14_normalized(static_cast<double>(scores[b]), totals[b], C14_SCORE_FLOOR, equal_share);
    bins[2 * b] = share * static_cast<double>(residual[b]);
    bins[2 * b + 1] = share * static_cast<double>(imaginary[b]);
  }
}

void share_frame(const ChannelRender& render, std::span<const float> scores,
                 std::span<const double> totals, std::size_t frame, FrameBuffers& buffers) {
  const double equal_share = 1.0 / static_cast<double>(render.stems());
  for (std::size_t tile = 0; tile < CellGrid::kTiles; ++tile) {
    const std::size_t at = render.grid.offset(tile, frame);
    run_kernel<share_columns>(scores.data() + at, totals.data() + at,
                              render.residual_spectrum.data() + 2 * at, CellGrid::columns(tile),
                              equal_share, buffers.bins() + 2 * CellGrid::first_bin(tile));
  }
}

void render_endpoint(const ChannelRender& render, std::span<const double> source,
                     std::span<const float> scores, std::span<const double> totals,
                     std::span<float> output) {
  FrameBuffers buffers;
  OverlapAdd overlap(render.transform, render.samples());
  const auto store = [&](std::size_t first, std::span<const double> part) {
    for (std::size_t i = 0; i < part.size(); ++i) {
      output[first + i] = static_cast<float>(source[first + i] + part[i]);
    }
  };
  for (std::size_t frame = 0; frame < render.grid.frames(); ++frame) {
    if (frame % 256 == 0) render.stop.check();
    share_frame(render, scores, totals, frame, buffers);
    overlap.add(buffers, store);
  }
  overlap.finish(store);
}

}  // namespace

void render_endpoints(ChannelRender& render, std::size_t index) {
  const auto source = render.job.source_models[index];
  render.output09.fetch_row(index);
  render.output10.fetch_row(index);
  render_endpoint(render, source, render.scores09.row(index), render.total09,
                  render.signal_row(render.output09, index));
  render_endpoint(render, source, render.scores10.row(index), render.total10,
                  render.signal_row(render.output10, index));
}

void measure_allocated_residual(ChannelRender& render) {
  std::vector<double> allocated(render.samples(), 0.0);
  for (std::size_t index = 0; index < render.stems(); ++index) {
    render.stop.check();
    const auto source = render.job.source_models[index];
    const auto output = render.signal_row(render.output10, index);
    for (std::size_t i = 0; i < allocated.size(); ++i) {
      allocated[i] += static_cast<double>(output[i]) - source[i];
    }
  }
  _c14_transform(render.transform, allocated, render.grid, render.residual_spectrum, render.stop);
}

}  // namespace verdel::internal
