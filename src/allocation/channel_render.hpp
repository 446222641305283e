#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <vector>

#include "allocation/cell_grid.hpp"
#include "allocation/render_scratch.hpp"
#include "allocation/spectral_transform.hpp"
#include "signal/arrays.hpp"
#include "signal/mapped_arrays.hpp"
#include "support/machine.hpp"
#include "support/stop_token.hpp"

/// One render of one channel: the residual shared out among the stems over a whole signal, in six
/// phases, with what they share between them.
namespace verdel::internal {

/// Called with the steps finished and the steps in all, on the thread that runs the render.
using RenderProgress = std::function<void(std::size_t done, std::size_t total)>;

/// What a render is given. Spans refer to the caller's rows, all of one length. A stem's model is
/// its tap times the gain; the residual is the mix minus the sum of the models. Neither is stored
/// for a whole song.
struct ChannelJob {
  std::vector<std::span<const float>> taps;  ///< one row per stem, in stem order
  std::span<const double> gain;              ///< the shared gain's factor at each sample
  std::span<const double> mix;
  int sr = 0;                       ///< Hz
  std::size_t start = 0, stop = 0;  ///< the span wanted, in samples, stop excluded
  std::size_t source_samples = 0;   ///< of the song, if the rows are a part of it
  std::size_t workers = 1;          ///< threads that one render may use inside, at most
  std::size_t active_channels = 1;  ///< channels that the machine is sure to carry at once
  RenderProgress progress;          ///< may be empty
};

/// The same as the phases read it, with models and residual written out. All of one length.
struct PhaseJob {
  std::vector<std::span<const double>> source_models;  ///< one row per stem, in stem order
  std::span<const double> residual;
  int sr = 0;                       ///< Hz
  std::size_t start = 0, stop = 0;  ///< the span wanted, in samples, stop excluded
  std::size_t workers = 1;          ///< threads that the render may use inside, at most
  RenderProgress progress = {};     ///< may be empty
};

/// What the phases of one render share: the job, and the arrays in the scratch by their meaning.
/// Each of the first four phases writes only its own stem's rows, so that stems may be worked on at
/// once; what a phase reads was finished before it began. "cells" are values on the grid, one a
/// cell; the rows of a stored array may be longer than the render needs.
struct ChannelRender {
  ChannelRender(const PhaseJob& job, const SpectralTransform& transform, RenderScratch& scratch,
                const StopToken& stop);

  std::size_t stems() const { return job.source_models.size(); }
  std::size_t samples() const { return job.residual.size(); }
  /// A stem's row of output09 or output10, as long as the signal.
  std::span<float> signal_row(MappedArray& output, std::size_t index) const {
    return output.row(index).first(samples());
  }

  const PhaseJob& job;
  const SpectralTransform& transform;
  RenderScratch& scratch;
  const StopToken& stop;
  CellGrid grid;

  MappedArray& support_scores;  ///< present support, cells. Phase 1; phases 4, 5.
  MappedArray& scores09;        ///< claims of endpoint 09, from phase 3 on its projections, cells.
  MappedArray& scores10;        ///< the same of endpoint 10. Phases 1, 3; phases 2, 5.
  MappedArray& output09;        ///< model plus share under endpoint 09, samples. Phase 2; 3, 6.
  MappedArray& output10;        ///< the same under endpoint 10. Phase 2; phases 3, 6.

  /// Spectrum of the residual, two values a cell; from phase 3 on of the residual that endpoint 10
  /// allocated. Written: at the start, after phase 2. Read: phases 1 to 3.
  std::span<float> residual_spectrum;
  /// Moving average over frames of its squared magnitude, cells. Start; phase 1.
  std::span<float> residual_power;
  /// Sums over the stems of scores09 and scores10, cells. After phases 1 and 3; phases 2 and 5.
  std::span<double> total09, total10;
  /// Weight of each frame as an onset, and whether an onset reaches it through one of the history's
  /// delays, both [stems][frames]. Where none does the gate stays shut. Phase 4; phase 5.
  Array2D<double> onsets;
  Array2D<char> behind_onsets;
  /// Whether an onset of any stem reaches the frame. After phase 4; phase 5.
  std::vector<char> behind_any_onset;
  /// Weight in 0 .. C14_TAIL_STRENGTH that moves a cell from endpoint 10 to endpoint 09, cells.
  /// Phase 5; phase 6.
  std::span<double> gate;
  /// Whether any cell of the frame has a gate above 0. Phase 5; phase 6.
  std::vector<char> gate_opens;
};

/// Writes out the models and, in the last row, the residual of a job to `room`,
/// [stems + 1][samples], which the result refers to.
PhaseJob write_out_models(const ChannelJob& job, RowsView<double> room);

/// Renders the whole signal and writes the stems over the job's span to `rendered`,
/// [stems][stop - start]. The span selects what is written and what the closing test covers, never
/// a value.
///
/// `room`: [stems + 1][samples], for models and residual. `scratch` has room for the job. What the
/// two hold afterwards means nothing.
/// Errors: those of check_channel_job and check_rendered; FloatingPointError for a residual,
/// ValueError for a model that is not finite.
void _render_transient_release_tail_channel_full(const ChannelJob& job, const Machine& machine,
                                                 RenderScratch& scratch, RowsView<double> room,
                                                 RowsView<double> rendered,
                                                 const StopToken& stop = {});

/// The tests that inputs must pass: one length, a span inside it. Throws ValueError.
/// `shortest`: the fewest samples accepted, or 0 where that is judged elsewhere.
void check_channel_job(const ChannelJob& job, std::size_t shortest);

/// The tests that stems, [stems][stop - start], must pass: finite, and their sum is the mix but for
/// C14_CONSERVATION_TOLERANCE. That holds by construction; this proves it. Throws
/// FloatingPointError.
void check_rendered(const ChannelJob& job, RowsView<const double> rendered);

}  // namespace verdel::internal
