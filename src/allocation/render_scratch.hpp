#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <span>
#include <type_traits>
#include <vector>

#include "allocation/cell_grid.hpp"
#include "signal/arrays.hpp"
#include "signal/mapped_arrays.hpp"
#include "support/machine.hpp"
#include "support/temporary_directory.hpp"

namespace verdel::internal {

/// Eight bytes a cell of working memory, lent to one array after another.
class CellBuffer {
 public:
  explicit CellBuffer(std::size_t cells)
      : bytes_(Array2D<std::byte>::uninitialised(cells, sizeof(double))) {}

  /// The buffer as `count` values; what it held as another type is gone.
  template <class T>
  std::span<T> as(std::size_t count) {
    static_assert(std::is_trivial_v<T> && alignof(T) <= kArrayAlignment);
    assert(count * sizeof(T) <= bytes_.size());
    return {new (static_cast<void*>(bytes_.data())) T[count], count};
  }

 private:
  Array2D<std::byte> bytes_;
};

/// The temporary files and the working memory of one render at a time. Renders of at most the
/// same size use it one after the other: the first touch of a page costs more than all that a
/// render does with it.
///
/// A named directory of its own (prefix "verdel-c14-") holds the files, which are nameless.
class RenderScratch {
 public:
  /// More spectra than this at once in scoring would break the bound on memory: 48 bytes a cell.
  static constexpr std::size_t kMostScoringSpectra = 4;

  /// Room for `stems` stems of `samples` samples, scored on `scoring_workers` threads.
  RenderScratch(const Machine& machine, std::size_t stems, std::size_t samples,
                std::size_t scoring_workers);

  /// What the files of one scratch take, in bytes, and its working memory.
  static std::uint64_t file_bytes(std::size_t stems, std::size_t samples);
  static std::uint64_t memory_bytes(std::size_t samples, std::size_t scoring_workers);

  /// Starts to write an array back that a phase has finished, if the arrays are large for this
  /// machine's memory. Elsewhere that is left to the system: a page that was written back faults
  /// again, and may be waited for, when the next phase or interval writes to it, which has been
  /// seen to double a render's time.
  void flush(MappedArray& array) const {
    if (large_) array.flush();
  }

  /// The buffer in which one scoring thread keeps its stem's spectrum.
  CellBuffer& scoring_spectrum(std::size_t worker);

 private:
  TemporaryDirectory directory_;  // goes last

 public:
  MappedArray support_scores, scores09, scores10, output09, output10;
  // By phase: the residual's spectrum until phase 3, the gate from phase 5 on ...
  CellBuffer residual_then_gate;
  // ... the residual's power, and the first scoring spectrum, in phase 1; then the scores' totals.
  CellBuffer power_then_total09, spectrum_then_total10;

 private:
  std::vector<CellBuffer> further_spectra_;
  bool large_;
};

}  // namespace verdel::internal
