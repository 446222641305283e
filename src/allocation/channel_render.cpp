#include "allocation/channel_render.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <cassert>
#include <cmath>

#include "allocation/phase_runner.hpp"
#include "allocation/worker_budgets.hpp"
#include "signal/sums.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

std::size_t scoring_workers_of(const PhaseJob& job, const Machine& machine) {
  const CellGrid grid(spectrum_frames(job.residual.size()));
  return std::min(_c14_stem_worker_count(grid.cells(), job.workers, machine),
                  RenderScratch::kMostScoringSpectra);
}

// A residual that is not finite may be the mix's fault or a model's.
void require_finite(const ChannelJob& job, const PhaseJob& phases) {
  if (!all_finite(job.mix)) throw FloatingPointError("non-finite candidate-14 residual");
  if (all_finite(phases.residual)) return;
  throw ValueError("candidate-14 models must match the finite residual");
}

}  // namespace

ChannelRender::ChannelRender(const PhaseJob& phase_job, const SpectralTransform& shared,
                             RenderScratch& render_scratch, const StopToken& stop_token)
    : job(phase_job),
      transform(shared),
      scratch(render_scratch),
      stop(stop_token),
      grid(spectrum_frames(phase_job.residual.size())),
      support_scores(scratch.support_scores),
      scores09(scratch.scores09),
      scores10(scratch.scores10),
      output09(scratch.output09),
      output10(scratch.output10) {}

PhaseJob write_out_models(const ChannelJob& job, RowsView<double> room) {
  assert(room.rows() == job.taps.size() + 1 && room.columns() == job.mix.size());
  PhaseJob phases{.source_models = {},
                  .residual = {},
                  .sr = job.sr,
                  .start = job.start,
                  .stop = job.stop,
                  .workers = job.workers,
                  .progress = job.progress};
  const auto residual = room.row(job.taps.size());
  std::ranges::fill(residual, 0.0);
  for (std::size_t stem = 0; stem < job.taps.size(); ++stem) {
    const auto model = room.row(stem);
    for (std::size_t i = 0; i < model.size(); ++i) {
      model[i] = static_cast<double>(job.taps[stem][i]) * job.gain[i];
      residual[i] += model[i];
    }
    phases.source_models.emplace_back(model);
  }
  for (std::size_t i = 0; i < residual.size(); ++i) residual[i] = job.mix[i] - residual[i];
  phases.residual = residual;
  return phases;
}

void check_channel_job(const ChannelJob& job, std::size_t shortest) {
  const std::size_t samples = job.mix.size();
  if (job.start >= job.stop || job.stop > samples || job.taps.empty()) {
    throw ValueError("invalid candidate-14 allocation inputs or interval");
  }
  if (samples < shortest) {
    throw ValueError(fmt::format("Candidate 14 needs at least {} audio frames", shortest));
  }
  const auto is_unfit = [samples](const auto& row) { return row.size() != samples; };
  if (is_unfit(job.gain) || std::ranges::any_of(job.taps, is_unfit)) {
    throw ValueError("candidate-14 models must match the finite residual");
  }
}

void _render_transient_release_tail_channel_full(const ChannelJob& job, const Machine& machine,
                                                 RenderScratch& scratch, RowsView<double> room,
                                                 RowsView<double> rendered, const StopToken& stop) {
  check_channel_job(job, 0);
  assert(rendered.rows() == job.taps.size());
  assert(rendered.columns() == job.stop - job.start);
  const PhaseJob phases = write_out_models(job, room);
  require_finite(job, phases);
  const SpectralTransform transform;
  ChannelRender render(phases, transform, scratch, stop);
  PhaseRunner(render, scoring_workers_of(phases, machine), machine).run(rendered);
  check_rendered(job, rendered);
}

void check_rendered(const ChannelJob& job, RowsView<const double> rendered) {
  for (std::size_t index = 0; index < rendered.rows(); ++index) {
    if (all_finite(rendered.row(index))) continue;
    throw FloatingPointError("non-finite candidate-14 allocation");
  }
  double error = 0.0, peak = 0.0;
  for (std::size_t i = job.start; i < job.stop; ++i) {
    const double expected = job.mix[i];
    double sum = 0.0;
    for (std::size_t index = 0; index < rendered.rows(); ++index) {
      sum += rendered.row(index)[i - job.start];
    }
    error = std::max(error, std::abs(sum - expected));
    peak = std::max(peak, std::abs(expected));
  }
  if (error > C14_CONSERVATION_TOLERANCE * std::max(1.0, peak)) {
    throw FloatingPointError(
        fmt::format("candidate-14 allocation failed conservation ({:g})", error));
  }
}

}  // namespace verdel::internal
