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

std::size_t scoring_workers_of(const ChannelJob& job, const Machine& machine) {
  const CellGrid grid(spectrum_frames(job.residual.size()));
  return std::min(_c14_stem_worker_count(grid.cells(), job.workers, machine),
                  RenderScratch::kMostScoringSpectra);
}

void render_phases(const ChannelJob& job, const Machine& machine, const StopToken& stop,
                   RenderScratch& scratch, RowsView<double> rendered) {
  const SpectralTransform transform;
  ChannelRender render(job, transform, scratch, stop);
  PhaseRunner(render, scoring_workers_of(job, machine), machine).run(rendered);
}

}  // namespace

ChannelRender::ChannelRender(const ChannelJob& channel_job, const SpectralTransform& shared,
                             RenderScratch& render_scratch, const StopToken& stop_token)
    : job(channel_job),
      transform(shared),
      scratch(render_scratch),
      stop(stop_token),
      grid(spectrum_frames(channel_job.residual.size())),
      support_scores(scratch.support_scores),
      scores09(scratch.scores09),
      scores10(scratch.scores10),
      output09(scratch.output09),
      output10(scratch.output10) {}

void check_channel_job(const ChannelJob& job, std::size_t shortest) {
  const std::size_t samples = job.residual.size();
  if (job.start >= job.stop || job.stop > samples || job.source_models.empty()) {
    throw ValueError("invalid candidate-14 allocation inputs or interval");
  }
  if (samples < shortest) {
    throw ValueError(fmt::format("Candidate 14 needs at least {} audio frames", shortest));
  }
  if (!all_finite(job.residual)) throw FloatingPointError("non-finite candidate-14 residual");
  for (const auto& source : job.source_models) {
    if (source.size() != samples || !all_finite(source)) {
      throw ValueError("candidate-14 models must match the finite residual");
    }
  }
}

void _render_transient_release_tail_channel_full(const ChannelJob& job, const Machine& machine,
                                                 RenderScratch& scratch, RowsView<double> rendered,
                                                 const StopToken& stop) {
  check_channel_job(job, 0);
  assert(rendered.rows() == job.source_models.size());
  assert(rendered.columns() == job.stop - job.start);
  render_phases(job, machine, stop, scratch, rendered);
  check_rendered(job, rendered);
}

void check_rendered(const ChannelJob& job, RowsView<const double> rendered) {
  for (std::size_t index = 0; index < rendered.rows(); ++index) {
    if (all_finite(rendered.row(index))) continue;
    throw FloatingPointError("non-finite candidate-14 allocation");
  }
  double error = 0.0, peak = 0.0;
  for (std::size_t i = job.start; i < job.stop; ++i) {
    double expected = job.residual[i];
    for (const auto& source : job.source_models) expected += source[i];
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
