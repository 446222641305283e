#pragma once

#include <complex>
#include <cstddef>
#include <span>
#include <vector>

/// The bank of band masks on the bins of one slice, and the rate at which each band is sampled.
///
/// Two neighbouring bands share every bin between their centres, with weights sin^2 and cos^2 that
/// add up to one, so a single number per bin holds the whole bank. A band holds nothing outside its
/// neighbours' centres: a short inverse transform of its own bins gives its signal, sampled as
/// densely as the band is wide instead of at the song's rate.
namespace verdel::internal {

struct ReportBand {
  /// Bins first .. stop - 1 belong to the band. Below `crest` its weight is upper_weight, from
  /// there on one minus it.
  std::size_t first = 0, crest = 0, stop = 0;
  std::size_t points = 0;  ///< samples of the band's signal in a slice
  /// Where the signal's 0 Hz stands. At 0 Hz or at half the song's rate the signal is real; the
  /// spectrum of the latter runs backwards. At the band's middle it is complex.
  enum class Origin { kZero, kMiddle, kNyquist } origin = Origin::kZero;

  bool complex() const { return origin == Origin::kMiddle; }
  std::size_t middle() const { return (first + stop) / 2; }  ///< a bin
};

struct BandLayout {
  std::size_t length = 0;           ///< samples of a slice
  std::vector<float> upper_weight;  ///< per bin: the weight of the upper of its two bands
  std::vector<ReportBand> bands;    ///< rising; without those that hold no bin

  std::size_t bins() const { return length / 2 + 1; }
};

/// The bands of StreamedBandMasks, `n_bands` (at least 2) of them, for slices of `length` samples.
/// With `full_rate` every band is sampled at the song's rate.
BandLayout lay_out_bands(std::size_t length, double sr, std::size_t n_bands, bool full_rate);

/// The spectrum of one band's signal, from `spectrum`, the unnormalised transform of a slice; its
/// unnormalised inverse at band.points points is the signal itself. A complex one is scaled so that
/// its squared magnitude is the band's power.
///
/// Shapes:  spectrum [layout.bins()]; band_spectrum [points / 2 + 1], [points] if complex.
void take_band(const BandLayout& layout, const ReportBand& band,
               std::span<const std::complex<float>> spectrum,
               std::span<std::complex<float>> band_spectrum);

/// The way back: adds the unnormalised forward transform of a band's signal to `spectrum`, whose
/// unnormalised inverse is then the slice itself.
void add_band(const BandLayout& layout, const ReportBand& band,
              std::span<const std::complex<float>> band_spectrum,
              std::span<std::complex<float>> spectrum);

}  // namespace verdel::internal
