#pragma once

#include <complex>
#include <cstddef>
#include <span>
#include <vector>

#include "contamination/windows.hpp"

/// The comparison of stem and tap in one band, on the band's own grid.
namespace verdel::internal {

/// The song's place on a grid that runs in a circle, as the transforms take it: point j stands at
/// sample j * step of a slice of `length` samples, and the song reaches from half a sample before
/// sample `first` to half a sample before sample `stop`.
struct GridExtent {
  double step = 1.0;
  std::size_t length = 0, first = 0, stop = 0;

  /// The grid points inside the song: point_begin() .. point_end() - 1.
  std::size_t point_begin() const;
  std::size_t point_end() const;
  /// No end of the song in this slice.
  bool all_song() const { return stop - first == length; }
};

/// Room for one comparison; one per thread, enlarged as needed.
struct ComparisonScratch {
  /// A product of two signals on the grid, padded for the window, and its sums in the window.
  struct Product {
    std::vector<float> padded, whole, ends;
  };
  Product cross, energy;
  std::vector<float> gain;
  std::vector<double> sums;
};

/// Mean square of the tap in the window (-140 dB) up to which nothing of the stem is its doing.
inline constexpr double kEnergyFloor = 1e-14;

/// Takes from the stem what a local gain on its tap explains: stem[j] -= gain[j] * tap[j], where
/// gain is the windowed sum of stem times tap over that of the tap's energy, held to 0 .. 50, and 0
/// where the energy's mean is not above the floor. The window reflects at the song's ends. Returns
/// whether any gain was above 0.
///
/// A complex signal is a band moved to 0 Hz; its product is Re(stem * conj(tap)).
/// Shapes:  both spans hold one sample per grid point. Overlap: none allowed.
bool remove_explained(const GridExtent& extent, const GridWindow& window,
                      std::span<const float> tap, std::span<float> stem,
                      ComparisonScratch& scratch);
bool remove_explained(const GridExtent& extent, const GridWindow& window,
                      std::span<const std::complex<float>> tap, std::span<std::complex<float>> stem,
                      ComparisonScratch& scratch);

}  // namespace verdel::internal
