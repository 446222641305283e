#include "contamination/figures.hpp"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <limits>
#include <memory>
#include <span>

#include "contamination/envelopes.hpp"
#include "contamination/separation.hpp"
#include "contamination/slices.hpp"
#include "signal/sums.hpp"
#include "support/thread_pool.hpp"

namespace verdel::internal {
namespace {

constexpr double kEnvelopeSeconds = 0.02;
constexpr double kSilence = -999.0;  // dB

double level(double mean_square) {
  return mean_square <= 0.0 ? kSilence : 10 * std::log10(mean_square);
}

// What the slices leave behind. A task writes its own slice of its own stem and nothing else, so
// it does not matter which thread does it when.
struct Traces {
  Array2D<double> foreign_energy, stem_energy;  // [stems][slices], over all channels
  Array2D<float> foreign_cells, tap_cells;      // [stems][cells], mean squares of the mono sum
};

void trace_slice(const ReportJob& job, const SlicePlan& plan, const BandSeparation& separation,
                 std::size_t stem, std::size_t slice, SeparationScratch& scratch,
                 Array2D<float>& room, Traces& traces, const StopToken& stop) {
  const StemView est = job.est[stem].audio, tap = job.taps[stem].audio;
  const std::size_t begin = plan.core_begin(slice), frames = plan.core_frames(slice);
  const RowsView<float> foreign = room.view().column_range(0, frames);
  double foreign_energy = 0.0, stem_energy = 0.0;
  for (std::size_t channel = 0; channel < est.rows(); ++channel) {
    stop.check();
    separation.foreign_part(slice, est.row(channel), tap.row(channel), scratch,
                            foreign.row(channel), stop);
    foreign_energy += sum_of_squares(foreign.row(channel));
    stem_energy += sum_of_squares(est.row(channel).subspan(begin, frames));
  }
  traces.foreign_energy.row(stem)[slice] = foreign_energy;
  traces.stem_energy.row(stem)[slice] = stem_energy;
  const auto cells_of = [&](Array2D<float>& cells) {
    return cells.row(stem).subspan(begin / plan.cell, (frames + plan.cell - 1) / plan.cell);
  };
  mean_square_cells(RowsView<const float>(foreign), plan.cell, cells_of(traces.foreign_cells));
  mean_square_cells(tap.column_range(begin, begin + frames), plan.cell, cells_of(traces.tap_cells));
}

Traces trace_all(const ReportJob& job, const SlicePlan& plan, ThreadPool* pool, std::size_t workers,
                 const StopToken& stop) {
  const std::size_t stems = job.est.size(), channels = job.est.front().audio.rows();
  const BandSeparation separation(plan, job.sr, job.n_bands);
  Traces traces{.foreign_energy = Array2D<double>::uninitialised(stems, plan.count),
                .stem_energy = Array2D<double>::uninitialised(stems, plan.count),
                .foreign_cells = Array2D<float>::uninitialised(stems, plan.cells()),
                .tap_cells = Array2D<float>::uninitialised(stems, plan.cells())};
  std::atomic<std::size_t> next{0};
  run_indexed(pool, workers, [&](std::size_t) {
    SeparationScratch scratch = separation.make_scratch();
    auto room = Array2D<float>::uninitialised(channels, plan.core);
    for (std::size_t task; (task = next++) < stems * plan.count;) {
      trace_slice(job, plan, separation, task / plan.count, task % plan.count, scratch, room,
                  traces, stop);
    }
  });
  return traces;
}

double sum_in_order(std::span<const double> values) {
  double sum = 0.0;
  for (const double value : values) sum += value;
  return sum;
}

}  // namespace

std::vector<StemContamination> measure_contamination(const ReportJob& job, const StopToken& stop) {
  assert(!job.est.empty() && job.taps.size() == job.est.size());
  const std::size_t stems = job.est.size();
  const StemView first = job.est.front().audio;
  const SlicePlan plan = plan_slices(first.columns(), job.sr, job.nfft);
  const std::size_t workers = std::clamp<std::size_t>(job.workers, 1, stems * plan.count);
  std::unique_ptr<ThreadPool> pool;
  if (workers > 1) pool = std::make_unique<ThreadPool>(workers, "verdel-report");

  const Traces traces = trace_all(job, plan, pool.get(), workers, stop);
  const double window_cells =
      static_cast<double>(odd_window(job.sr, kEnvelopeSeconds)) / static_cast<double>(plan.cell);
  std::vector<EnvelopeCurve> foreign(stems), tap(stems);
  run_indexed(pool.get(), stems, [&](std::size_t s) {
    stop.check();
    foreign[s] = envelope_curve(traces.foreign_cells.row(s), window_cells);
    tap[s] = envelope_curve(traces.tap_cells.row(s), window_cells);
  });
  std::vector<StemContamination> figures(stems);
  const auto samples = static_cast<double>(first.rows() * first.columns());
  run_indexed(pool.get(), stems, [&](std::size_t s) {
    figures[s].ratio = level(sum_in_order(traces.foreign_energy.row(s)) / samples) -
                       level(sum_in_order(traces.stem_energy.row(s)) / samples);
    for (std::size_t other = 0; other < stems; ++other) {
      stop.check();
      figures[s].resemblance.push_back(other == s ? std::numeric_limits<double>::quiet_NaN()
                                                  : correlation(tap[other], foreign[s]));
    }
  });
  return figures;
}

}  // namespace verdel::internal
