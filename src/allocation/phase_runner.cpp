#include "allocation/phase_runner.hpp"

#include <algorithm>
#include <memory>

#include "allocation/phases.hpp"
#include "allocation/worker_budgets.hpp"
#include "signal/instruction_sets.hpp"
#include "support/ordered_prefetch.hpp"
#include "support/scratch_pool.hpp"

namespace verdel::internal {
namespace {

VERDEL_INLINE void add_cells(const float* __restrict stored, std::size_t count,
                             double* __restrict totals) {
  for (std::size_t i = 0; i < count; ++i) totals[i] += static_cast<double>(stored[i]);
}

}  // namespace

PhaseRunner::PhaseRunner(ChannelRender& render, std::size_t scoring_workers, const Machine& machine)
    : render_(render),
      scoring_workers_(scoring_workers),
      projection_workers_(_c14_projection_worker_count(render.stems(), render.grid.cells(),
                                                       render.job.workers, machine)),
      stem_workers_(std::min(std::max<std::size_t>(1, render.job.workers), render.stems())) {
  if (render.job.workers > 1) rows_.emplace(render.job.workers, "verdel-c14-row");
}

void PhaseRunner::run(RowsView<double> rendered) {
  prepare_residual();
  score_sources();
  render_all_endpoints();
  project_stems();
  find_all_onsets();
  build_whole_gate();
  blend(rendered);
}

void PhaseRunner::report() {
  if (render_.job.progress) render_.job.progress(finished_, render_.stems() * C14_STEPS_PER_STEM);
}

void PhaseRunner::for_each_stem(std::size_t workers, const char* thread_prefix,
                                const std::function<void(std::size_t)>& work) {
  auto results = _ordered_prefetch(
      [&](std::size_t index) {
        work(index);
        return index;
      },
      render_.stems(), workers, thread_prefix);
  while (results.next()) {
    ++finished_;
    report();
  }
}

void PhaseRunner::for_each_tile(const std::function<void(std::size_t)>& work) {
  run_indexed(rows_ ? &*rows_ : nullptr, CellGrid::kTiles, [&](std::size_t tile) {
    render_.stop.check();
    work(tile);
  });
}

void PhaseRunner::sum_stems(const MappedArray& stored, std::span<double> totals) {
  for_each_tile([&](std::size_t tile) {
    const std::size_t at = render_.grid.offset(tile, 0);
    const std::size_t count = render_.grid.frames() * CellGrid::columns(tile);
    std::fill_n(totals.data() + at, count, 0.0);
    for (std::size_t index = 0; index < render_.stems(); ++index) {
      run_kernel<add_cells>(stored.row(index).data() + at, count, totals.data() + at);
    }
  });
}

void PhaseRunner::prepare_residual() {
  render_.residual_spectrum = render_.scratch.residual_then_gate.as<float>(2 * cells());
  render_.residual_power = render_.scratch.power_then_total09.as<float>(cells());
  _c14_transform(render_.transform, render_.job.residual, render_.grid, render_.residual_spectrum,
                 render_.stop);
  report();
  for_each_tile([&](std::size_t tile) {
    smooth_power(render_.grid, tile, render_.residual_spectrum.data(),
                 render_.residual_power.data());
  });
}

void PhaseRunner::score_sources() {
  ScratchPool<std::span<float>> spectra([&, worker = std::size_t{0}]() mutable {
    return std::make_unique<std::span<float>>(
        render_.scratch.scoring_spectrum(worker++).as<float>(2 * cells()));
  });
  for_each_stem(scoring_workers_, "verdel-energy", [&](std::size_t index) {
    const auto spectrum = spectra.lease();
    score_source(render_, index, *spectrum);
  });
  render_.scratch.flush(render_.support_scores);
  render_.scratch.flush(render_.scores09);
  render_.scratch.flush(render_.scores10);
}

void PhaseRunner::render_all_endpoints() {
  render_.total09 = render_.scratch.power_then_total09.as<double>(cells());
  render_.total10 = render_.scratch.spectrum_then_total10.as<double>(cells());
  sum_stems(render_.scores09, render_.total09);
  sum_stems(render_.scores10, render_.total10);
  for_each_stem(stem_workers_, "verdel-c14-endpoint",
                [&](std::size_t index) { render_endpoints(render_, index); });
  render_.scratch.flush(render_.output09);
  render_.scratch.flush(render_.output10);
  measure_allocated_residual(render_);
}

void PhaseRunner::project_stems() {
  for_each_stem(projection_workers_, "verdel-c14-project",
                [&](std::size_t index) { project_stem(render_, index); });
  render_.scratch.flush(render_.scores09);
  render_.scratch.flush(render_.scores10);
  sum_stems(render_.scores09, render_.total09);
  sum_stems(render_.scores10, render_.total10);
}

void PhaseRunner::find_all_onsets() {
  render_.onsets = Array2D<double>::uninitialised(render_.stems(), render_.grid.frames());
  render_.behind_onsets = Array2D<char>::uninitialised(render_.stems(), render_.grid.frames());
  for_each_stem(stem_workers_, "verdel-c14-onset",
                [&](std::size_t index) { find_onsets(render_, index); });
  render_.behind_any_onset.assign(render_.grid.frames(), 0);
  for (std::size_t index = 0; index < render_.stems(); ++index) {
    std::ranges::transform(render_.behind_onsets.row(index), render_.behind_any_onset,
                           render_.behind_any_onset.begin(), std::bit_or<>());
  }
}

void PhaseRunner::build_whole_gate() {
  render_.gate = render_.scratch.residual_then_gate.as<double>(cells());
  std::fill(render_.gate.begin(), render_.gate.end(), 0.0);
  auto tiles = _ordered_prefetch(
      [&](std::size_t tile) {
        render_.stop.check();
        build_gate(render_, tile);
        return tile;
      },
      CellGrid::kTiles, std::max<std::size_t>(1, render_.job.workers), "verdel-c14-gate");
  // One gate serves all stems: the phase's steps are spread over its tiles.
  const std::size_t before = finished_;
  while (const auto tile = tiles.next()) {
    const std::size_t steps = (*tile + 1) * render_.stems() / CellGrid::kTiles;
    while (finished_ < before + steps) {
      ++finished_;
      report();
    }
  }
  finish_gate();
}

void PhaseRunner::finish_gate() {
  render_.gate_opens.assign(render_.grid.frames(), 0);
  for (std::size_t tile = 0; tile < CellGrid::kTiles; ++tile) {
    const std::size_t columns = CellGrid::columns(tile);
    for (std::size_t frame = 0; frame < render_.grid.frames(); ++frame) {
      double* row = render_.gate.data() + render_.grid.offset(tile, frame);
      double sum = 0.0;
      for (std::size_t b = 0; b < columns; ++b) {
        row[b] *= C14_TAIL_STRENGTH;
        sum += row[b];
      }
      if (sum > 0.0) render_.gate_opens[frame] = 1;
    }
  }
}

void PhaseRunner::blend(RowsView<double> rendered) {
  for_each_stem(stem_workers_, "verdel-c14-blend",
                [&](std::size_t index) { blend_stem(render_, index, rendered.row(index)); });
}

}  // namespace verdel::internal
