#pragma once

#include <cstddef>
#include <span>

#include "allocation/channel_render.hpp"

/// The work of each phase: on one stem, whose rows alone it writes, or, for the one gate of all
/// stems, on one tile.
namespace verdel::internal {

/// Phase 1: how much of the residual the stem can claim in each cell, under either endpoint.
/// `spectrum` is room for the stem's own. Writes: support_scores, scores09, scores10.
void score_source(ChannelRender& render, std::size_t index, std::span<float> spectrum);

/// The moving average over C14_COHERENCE_SMOOTH_FRAMES of a spectrum's squared magnitude, for one
/// tile. `spectrum` and `power` are whole arrays on the grid.
void smooth_power(const CellGrid& grid, std::size_t tile, const float* spectrum, float* power);

/// Phase 2: the stem's model plus its share of the residual, under both endpoints.
/// Writes: output09, output10.
void render_endpoints(ChannelRender& render, std::size_t index);

/// After phase 2: the spectrum of what endpoint 10 added to the models, rounding included,
/// replaces that of the residual.
void measure_allocated_residual(ChannelRender& render);

/// Phase 3: what the stored endpoints contribute to that residual, cell by cell.
/// Writes: scores09, scores10.
void project_stem(ChannelRender& render, std::size_t index);

/// Phase 4: the frames in which the stem strikes. Writes: the stem's rows of onsets and
/// behind_onsets.
void find_onsets(ChannelRender& render, std::size_t index);

/// Phase 5, for one tile: opens the gate, zero before, where the tile's cells look like the release
/// tail of a stem's transient. Writes: the tile's part of gate.
void build_gate(ChannelRender& render, std::size_t tile);

/// Phase 6: the stem over the job's span: endpoint 10, moved towards endpoint 09 by the gate.
void blend_stem(const ChannelRender& render, std::size_t index, std::span<double> rendered);

}  // namespace verdel::internal
