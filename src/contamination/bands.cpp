#include "contamination/bands.hpp"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <numbers>

#include "contamination/slices.hpp"
#include "gain/band_masks.hpp"
#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

using Origin = ReportBand::Origin;

// Room for the movement of the gain, and for what folds back; see sample_band.
constexpr double kMarginHz = 240.0;

// Nearer to 0 Hz or to half the song's rate than this, a band stays real.
constexpr double kRealWithinHz = 450.0;

// to[i] = (base + slope * upper_weight[i]) * from[i], complex numbers as pairs of floats.
VERDEL_INLINE void weigh(const std::complex<float>* from, const float* __restrict upper_weight,
                         float base, float slope, std::size_t count, std::complex<float>* to) {
  const auto* __restrict x = reinterpret_cast<const float*>(from);
  auto* __restrict y = reinterpret_cast<float*>(to);
  for (std::size_t i = 0; i < count; ++i) {
    const float weight = base + slope * upper_weight[i];
    y[2 * i] = weight * x[2 * i];
    y[2 * i + 1] = weight * x[2 * i + 1];
  }
}

VERDEL_INLINE void add_scaled(const std::complex<float>* from, float scale, std::size_t count,
                              std::complex<float>* to) {
  const auto* __restrict x = reinterpret_cast<const float*>(from);
  auto* __restrict y = reinterpret_cast<float*>(to);
  for (std::size_t i = 0; i < 2 * count; ++i) y[i] += scale * x[i];
}

// Chooses how densely a band is sampled. The product of two signals has twice their bandwidth;
// what does not fit folds back to the margin and beyond, where the 50 ms window lets little
// through. Near 0 Hz, and near half the song's rate, the product also has a slow part at twice the
// distance to it. There the signal stays real, which holds that part; in the low bands, which are
// many and narrow, nothing of it may fold at all.
void sample_band(const BandLayout& layout, double bin_hz, ReportBand& band) {
  const double bottom_hz = static_cast<double>(band.first) * bin_hz;
  const double top_hz = static_cast<double>(band.stop - 1) * bin_hz;
  const double nyquist_hz = static_cast<double>(layout.length / 2) * bin_hz;
  double rate_hz = 0.0;
  if (bottom_hz < kRealWithinHz) {
    band.origin = Origin::kZero;
    rate_hz = std::max(4 * top_hz, 2 * (top_hz + kMarginHz));
  } else if (nyquist_hz - top_hz < kRealWithinHz) {
    band.origin = Origin::kNyquist;
    rate_hz = 2 * (nyquist_hz - bottom_hz + kMarginHz);
  } else {
    band.origin = Origin::kMiddle;
    rate_hz = top_hz - bottom_hz + kMarginHz;
  }
  band.points = good_transform_length(static_cast<std::size_t>(std::ceil(rate_hz / bin_hz)));
}

// At the song's own rate a band is what it is by definition, wherever it lies.
void sample_at_full_rate(const BandLayout& layout, ReportBand& band) {
  band.origin = Origin::kZero;
  band.points = layout.length;
}

bool dearer_than_full_rate(const BandLayout& layout, const ReportBand& band) {
  return (band.complex() ? 2 * band.points : band.points) >= layout.length;
}

}  // namespace

BandLayout lay_out_bands(std::size_t length, double sr, std::size_t n_bands, bool full_rate) {
  const StreamedBandMasks masks(length, sr, n_bands);
  const double bin_hz = sr / static_cast<double>(length);
  BandLayout layout;
  layout.length = length;
  layout.upper_weight.resize(layout.bins());
  for (std::size_t k = 0; k < n_bands; ++k) {
    const auto [first, crest, stop] = masks.edges(k);
    for (std::size_t bin = first; bin < crest; ++bin) {
      layout.upper_weight[bin] =
          static_cast<float>(masks.raw_weight(k, bin) / masks.denominator()[bin]);
    }
    if (first == stop) continue;
    ReportBand band{.first = first, .crest = crest, .stop = stop};
    sample_band(layout, bin_hz, band);
    if (full_rate || dearer_than_full_rate(layout, band)) sample_at_full_rate(layout, band);
    layout.bands.push_back(band);
  }
  return layout;
}

void take_band(const BandLayout& layout, const ReportBand& band,
               std::span<const std::complex<float>> spectrum,
               std::span<std::complex<float>> band_spectrum) {
  const float scale =
      (band.complex() ? std::numbers::sqrt2_v<float> : 1.0F) / static_cast<float>(layout.length);
  const auto copy = [&](std::size_t first, std::size_t stop, std::complex<float>* to) {
    const std::size_t crest = std::clamp(band.crest, first, stop);
    const float* const upper = layout.upper_weight.data();
    run_kernel<weigh>(spectrum.data() + first, upper + first, 0.0F, scale, crest - first, to);
    run_kernel<weigh>(spectrum.data() + crest, upper + crest, scale, -scale, stop - crest,
                      to + (crest - first));
  };
  // The bins that the band does not fill are silent.
  const auto clear = [&](std::size_t begin, std::size_t end) {
    std::fill_n(band_spectrum.data() + begin, end - begin, std::complex<float>());
  };
  std::complex<float>* const slots = band_spectrum.data();
  const std::size_t count = band.stop - band.first;
  if (band.complex()) {
    const std::size_t above = band.stop - band.middle(), below = band.middle() - band.first;
    copy(band.middle(), band.stop, slots);
    clear(above, band.points - below);
    copy(band.first, band.middle(), slots + (band.points - below));
    return;
  }
  const bool backwards = band.origin == Origin::kNyquist;
  const std::size_t lowest = backwards ? layout.bins() - band.stop : band.first;
  clear(0, lowest);
  copy(band.first, band.stop, slots + lowest);
  clear(lowest + count, band_spectrum.size());
  if (backwards) {
    std::reverse(slots + lowest, slots + lowest + count);
    for (std::size_t i = lowest; i < lowest + count; ++i) slots[i] = std::conj(slots[i]);
  }
}

void add_band(const BandLayout& layout, const ReportBand& band,
              std::span<const std::complex<float>> band_spectrum,
              std::span<std::complex<float>> spectrum) {
  const float scale =
      (band.complex() ? std::numbers::sqrt2_v<float> / 2 : 1.0F) / static_cast<float>(band.points);
  const std::complex<float>* const slots = band_spectrum.data();
  if (band.complex()) {
    const std::size_t middle = band.middle(), half = band.points / 2;
    const std::size_t above = std::min(half, layout.bins() - middle);
    const std::size_t below = std::min(half, middle);
    run_kernel<add_scaled>(slots, scale, above, spectrum.data() + middle);
    run_kernel<add_scaled>(slots + (band.points - below), scale, below,
                           spectrum.data() + (middle - below));
  } else if (band.origin == Origin::kZero) {
    run_kernel<add_scaled>(slots, scale, band_spectrum.size(), spectrum.data());
  } else {
    std::complex<float>* const nyquist = &spectrum.back();
    for (std::size_t i = 0; i < band_spectrum.size(); ++i) {
      *(nyquist - i) += scale * std::conj(slots[i]);
    }
  }
}

}  // namespace verdel::internal
