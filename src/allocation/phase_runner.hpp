#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <span>

#include "allocation/channel_render.hpp"
#include "signal/arrays.hpp"
#include "support/machine.hpp"
#include "support/thread_pool.hpp"

namespace verdel::internal {

/// The six phases of a render, in the order in which they stand, and its count of
/// finished steps: one a stem and phase, in stem order, reported on the calling thread.
class PhaseRunner {
 public:
  /// `scoring_workers`: stems scored at once; the scratch has that many spectra.
  PhaseRunner(ChannelRender& render, std::size_t scoring_workers, const Machine& machine);

  /// All of them: the stems over the job's span, [stems][stop - start].
  void run(RowsView<double> rendered);

  void prepare_residual();  ///< and the first report, of no step
  void score_sources();
  void render_all_endpoints();
  void project_stems();
  void find_all_onsets();
  void build_whole_gate();
  void blend(RowsView<double> rendered);

 private:
  void report();
  /// work(stem) for every stem on up to `workers` threads; steps finish in stem order.
  void for_each_stem(std::size_t workers, const char* thread_prefix,
                     const std::function<void(std::size_t)>& work);
  /// work(tile) for every tile on the render's pool.
  void for_each_tile(const std::function<void(std::size_t)>& work);
  /// The sum of a stored array over the stems, in stem order.
  void sum_stems(const MappedArray& stored, std::span<double> totals);
  /// Ends the gate: its strength, and which frames it opens at all.
  void finish_gate();
  std::size_t cells() const { return render_.grid.stored_cells(); }

  ChannelRender& render_;
  std::size_t scoring_workers_, projection_workers_, stem_workers_;
  std::optional<ThreadPool> rows_;
  std::size_t finished_ = 0;
};

}  // namespace verdel::internal
