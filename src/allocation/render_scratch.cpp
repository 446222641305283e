#include "allocation/render_scratch.hpp"

#include <cassert>

#include "allocation/spectral_transform.hpp"

namespace verdel::internal {
namespace {

std::size_t stored_cells(std::size_t samples) {
  return CellGrid(spectrum_frames(samples)).stored_cells();
}

/// Whether the files take more than this share of memory; a system begins to write back by itself
/// at about a tenth.
bool is_large(const Machine& machine, std::size_t stems, std::size_t samples) {
  constexpr std::size_t kShare = 8;
  return RenderScratch::file_bytes(stems, samples) > machine.physical_memory() / kShare;
}

}  // namespace

RenderScratch::RenderScratch(const Machine& machine, std::size_t stems, std::size_t samples,
                             std::size_t scoring_workers)
    : directory_(machine.temporary_folder(), "verdel-c14-"),
      support_scores(directory_.path() + "/support.dat", stems, stored_cells(samples)),
      scores09(directory_.path() + "/lagged.dat", stems, stored_cells(samples)),
      scores10(directory_.path() + "/persistent.dat", stems, stored_cells(samples)),
      output09(directory_.path() + "/endpoint-09.dat", stems, samples),
      output10(directory_.path() + "/endpoint-10.dat", stems, samples),
      residual_then_gate(stored_cells(samples)),
      power_then_total09(stored_cells(samples)),
      spectrum_then_total10(stored_cells(samples)),
      large_(is_large(machine, stems, samples)) {
  assert(scoring_workers <= kMostScoringSpectra);
  for (std::size_t worker = 1; worker < scoring_workers; ++worker) {
    further_spectra_.emplace_back(stored_cells(samples));
  }
}

std::uint64_t RenderScratch::file_bytes(std::size_t stems, std::size_t samples) {
  return stems * (3 * stored_cells(samples) + 2 * samples) * sizeof(float);
}

std::uint64_t RenderScratch::memory_bytes(std::size_t samples, std::size_t scoring_workers) {
  return (2 + scoring_workers) * stored_cells(samples) * sizeof(double);
}

CellBuffer& RenderScratch::scoring_spectrum(std::size_t worker) {
  return worker == 0 ? spectrum_then_total10 : further_spectra_[worker - 1];
}

}  // namespace verdel::internal
