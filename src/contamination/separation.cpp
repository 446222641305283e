#include "contamination/separation.hpp"

#include <algorithm>
#include <cassert>

#include "signal/sums.hpp"

namespace verdel::internal {
namespace {

constexpr double kCompareSeconds = 0.05;

std::size_t spectrum_size(const ReportBand& band) {
  return band.complex() ? band.points : band.points / 2 + 1;
}

std::span<float> as_real(Array2D<std::complex<float>>& values, std::size_t count) {
  assert(count <= 2 * values.size());
  return {reinterpret_cast<float*>(values.data()), count};
}

}  // namespace

std::size_t odd_window(int sr, double seconds) {
  return std::max<std::size_t>(3, static_cast<std::size_t>(sr * seconds) | 1);
}

BandSeparation::BandSeparation(const SlicePlan& plan, int sr, std::size_t n_bands)
    : plan_(plan),
      layout_(lay_out_bands(plan.length, sr, n_bands, plan.full_rate)),
      window_(odd_window(sr, kCompareSeconds)),
      slice_transform_(plan.length) {
  for (const ReportBand& band : layout_.bands) {
    if (band.complex()) {
      complex_transforms_.try_emplace(band.points, band.points);
    } else {
      real_transforms_.try_emplace(band.points, band.points);
    }
  }
}

SeparationScratch BandSeparation::make_scratch() const {
  std::size_t room = 0;
  for (const ReportBand& band : layout_.bands) {
    room = std::max(room, spectrum_size(band));
  }
  using Spectrum = Array2D<std::complex<float>>;
  const std::size_t bins = layout_.bins();
  return {.samples = Array2D<float>::uninitialised(1, plan_.length),
          .stem = Spectrum::uninitialised(1, bins),
          .tap = Spectrum::uninitialised(1, bins),
          .rest = Spectrum::uninitialised(1, bins),
          .band_spectrum = Spectrum::uninitialised(1, room),
          .band_stem = Spectrum::uninitialised(1, room),
          .band_tap = Spectrum::uninitialised(1, room),
          .comparison = {}};
}

void BandSeparation::transform_slice(const SlicePlan::Extent& extent, std::span<const float> song,
                                     Array2D<float>& samples,
                                     Array2D<std::complex<float>>& spectrum) const {
  float* const slice = samples.data();
  std::fill_n(slice, extent.first, 0.0F);
  std::ranges::copy(song, slice + extent.first);
  std::fill(slice + extent.stop, slice + plan_.length, 0.0F);
  slice_transform_.forward(slice, spectrum.data());
}

// Adds what one band leaves of the stem to scratch.rest; returns whether the tap explained any.
bool BandSeparation::separate_band(const ReportBand& band, const SlicePlan::Extent& extent,
                                   SeparationScratch& scratch) const {
  const double step = static_cast<double>(plan_.length) / static_cast<double>(band.points);
  const double width = static_cast<double>(window_) / step;
  const GridExtent grid{
      .step = step, .length = plan_.length, .first = extent.first, .stop = extent.stop};
  // At the full rate the window is a sum over whole samples.
  const GridWindow window =
      step == 1.0 ? GridWindow::over_cells(width) : GridWindow::over_samples(width);
  const auto band_spectrum = scratch.band_spectrum.flat().first(spectrum_size(band));
  const auto compare = [&](const auto& transform, auto stem, auto tap) {
    take_band(layout_, band, scratch.stem.flat(), band_spectrum);
    transform.inverse(band_spectrum.data(), stem.data());
    take_band(layout_, band, scratch.tap.flat(), band_spectrum);
    transform.inverse(band_spectrum.data(), tap.data());
    const bool explained = remove_explained(grid, window, tap, stem, scratch.comparison);
    transform.forward(stem.data(), band_spectrum.data());
    return explained;
  };
  const bool explained = band.complex() ? compare(complex_transforms_.at(band.points),
                                                  scratch.band_stem.flat().first(band.points),
                                                  scratch.band_tap.flat().first(band.points))
                                        : compare(real_transforms_.at(band.points),
                                                  as_real(scratch.band_stem, band.points),
                                                  as_real(scratch.band_tap, band.points));
  add_band(layout_, band, band_spectrum, scratch.rest.flat());
  return explained;
}

bool BandSeparation::worth_comparing(std::span<const float> stem,
                                     std::span<const float> tap) const {
  // No band of the tap has more energy than all of it, and a window that reflects at the song's
  // ends sees each sample as often as the song fits into it, and twice more at most. Where even
  // that stays under the floor, in digital silence say, every gain is 0.
  const auto window = static_cast<double>(window_);
  const double seen = 2.0 + window / static_cast<double>(tap.size());
  const double least_energy = kEnergyFloor * window / seen;
  constexpr std::size_t kBlock = 4096;
  double energy = 0.0;
  for (std::size_t i = 0; i < tap.size() && energy <= least_energy; i += kBlock) {
    energy += sum_of_squares(tap.subspan(i, std::min(kBlock, tap.size() - i)));
  }
  return energy > least_energy &&
         std::any_of(stem.begin(), stem.end(), [](float sample) { return sample != 0.0F; });
}

void BandSeparation::foreign_part(std::size_t slice, std::span<const float> stem,
                                  std::span<const float> tap, SeparationScratch& scratch,
                                  std::span<float> foreign, const StopToken& stop) const {
  assert(stem.size() == plan_.frames && tap.size() == plan_.frames);
  assert(foreign.size() == plan_.core_frames(slice));
  const SlicePlan::Extent extent = plan_.extent(slice);
  const auto stem_slice = stem.subspan(extent.song_first, extent.frames());
  const auto tap_slice = tap.subspan(extent.song_first, extent.frames());
  bool explained = false;
  if (worth_comparing(stem_slice, tap_slice)) {
    transform_slice(extent, stem_slice, scratch.samples, scratch.stem);
    transform_slice(extent, tap_slice, scratch.samples, scratch.tap);
    std::fill_n(scratch.rest.data(), scratch.rest.size(), std::complex<float>());
    for (const ReportBand& band : layout_.bands) {
      stop.check();
      explained |= separate_band(band, extent, scratch);
    }
  }
  if (!explained) {
    // Nothing of the tap is in the stem: all of it is foreign, without the detour's rounding.
    std::ranges::copy(stem.subspan(plan_.core_begin(slice), foreign.size()), foreign.begin());
    return;
  }
  slice_transform_.inverse(scratch.rest.data(), scratch.samples.data());
  std::copy_n(scratch.samples.data() + plan_.context, foreign.size(), foreign.data());
}

}  // namespace verdel::internal
