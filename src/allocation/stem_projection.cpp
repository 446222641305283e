#include "allocation/stem_projection.hpp"

#include <algorithm>

#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

// residual / |residual|^2, halved for what pairs are made of.
VERDEL_INLINE void invert_residual(const double* bins, float* unit) {
  constexpr auto kFloor = static_cast<float>(C14_POWER_FLOOR);
  VERDEL_INDEPENDENT
  for (std::size_t k = 0; k < C14_BINS; ++k) {
    const auto re = static_cast<float>(bins[2 * k]), im = static_cast<float>(bins[2 * k + 1]);
    const float power = re * re + im * im;
    const float half = 0.5F / (power > kFloor ? power : kFloor);
    unit[k] = re * half;
    unit[Tile::kRow + k] = im * half;
  }
}

VERDEL_INLINE void window_pair(const float* first, const float* second, const float* window,
                               std::size_t count, float* pair) {
  VERDEL_INDEPENDENT
  for (std::size_t n = 0; n < count; ++n) {
    pair[2 * n] = first[n] * window[n];
    pair[2 * n + 1] = second[n] * window[n];
  }
}

// The rows of one stem that a projection fills.
struct ProjectedRows {
  float* projection09;
  float* projection10;
  double* total09;
  double* total10;
  float* difference;
};

// A spectrum's real and imaginary parts side by side, its first bin once more at the end.
struct SplitPair {
  alignas(64) float re[C14_FFT_SIZE + 1], im[C14_FFT_SIZE + 1];
};

VERDEL_INLINE void split_pair(const float* pair, SplitPair& split) {
  float* re = split.re;
  float* im = split.im;
  VERDEL_INDEPENDENT
  for (std::size_t k = 0; k < C14_FFT_SIZE; ++k) {
    re[k] = pair[2 * k];
    im[k] = pair[2 * k + 1];
  }
  re[C14_FFT_SIZE] = re[0];
  im[C14_FFT_SIZE] = im[0];
}

// Takes the two real signals' spectra apart: twice the one's is Z(k) + conj Z(-k), twice the
// other's (Z(k) - conj Z(-k)) / i.
VERDEL_INLINE void project_pair(const float* pair, const float* unit, const ProjectedRows& rows) {
  SplitPair split;
  split_pair(pair, split);
  const float* re = split.re;
  const float* im = split.im;
  const float* mirror_re = split.re + C14_FFT_SIZE;
  const float* mirror_im = split.im + C14_FFT_SIZE;
  float* projection09 = rows.projection09;
  float* projection10 = rows.projection10;
  double* total09 = rows.total09;
  double* total10 = rows.total10;
  float* difference = rows.difference;
  const float* unit_im = unit + Tile::kRow;
  float* difference_im = rows.difference + Tile::kRow;
  VERDEL_INDEPENDENT
  for (std::ptrdiff_t k = 0; k < static_cast<std::ptrdiff_t>(C14_BINS); ++k) {
    const float re09 = re[k] + mirror_re[-k], im09 = im[k] - mirror_im[-k];
    const float re10 = im[k] + mirror_im[-k], im10 = mirror_re[-k] - re[k];
    const float part09 = re09 * unit[k] + im09 * unit_im[k];
    const float part10 = re10 * unit[k] + im10 * unit_im[k];
    const float positive09 = part09 > 0.0F ? part09 : 0.0F;
    const float positive10 = part10 > 0.0F ? part10 : 0.0F;
    projection09[k] = positive09;
    projection10[k] = positive10;
    total09[k] += static_cast<double>(positive09);
    total10[k] += static_cast<double>(positive10);
    difference[k] = 0.5F * (re09 - re10);
    difference_im[k] = 0.5F * (im09 - im10);
  }
}

}  // namespace

FrameProjection::FrameProjection(std::size_t stems)
    : differences(Array2D<float>::zeros(stems, 2 * Tile::kRow)) {
  for (auto& rows : projections) rows = Array2D<float>::zeros(stems, Tile::kRow);
  for (auto& row : totals) row = Array2D<double>::zeros(1, Tile::kRow);
}

StemProjection::StemProjection(const ChannelSpectra& spectra, const EndpointRendering& endpoints,
                               const SpectralTransform& transform)
    : spectra_(spectra),
      endpoints_(endpoints),
      transform_(transform),
      projected_(spectra.stems()),
      unit_(Array2D<float>::zeros(1, 2 * Tile::kRow)) {}

void StemProjection::project(std::size_t frame) {
  transform_frame(transform_, endpoints_.allocated(), frame, spectra_.extent(), buffers_);
  run_kernel<invert_residual>(buffers_.bins(), unit_.data());
  for (auto& total : projected_.totals) std::ranges::fill(total.flat(), 0.0);
  for (std::size_t stem = 0; stem < spectra_.stems(); ++stem) {
    if (endpoints_.is_silent(stem, frame)) {
      for (auto& rows : projected_.projections) std::ranges::fill(rows.row(stem), 0.0F);
      std::ranges::fill(projected_.differences.row(stem), 0.0F);
    } else {
      project_stem(stem, frame);
    }
  }
}

void StemProjection::project_stem(std::size_t stem, std::size_t frame) {
  float* samples = pair_.samples();
  for_each_hop(
      frame, spectra_.extent(),
      [&](std::size_t hop, std::size_t count, std::size_t position) {
        const HopRing<float>& shares = endpoints_.shares();
        run_kernel<window_pair>(shares.hop(2 * stem, hop), shares.hop(2 * stem + 1, hop),
                                transform_.pair_analysis_window() + position, count,
                                samples + 2 * position);
      },
      [&](std::size_t position, std::size_t count) {
        std::fill_n(samples + 2 * position, 2 * count, 0.0F);
      });
  transform_.pair_fourier().forward(pair_.time.data(), pair_.spectrum.data());
  run_kernel<project_pair>(pair_.bins(), unit_.data(),
                           ProjectedRows{.projection09 = projected_.projections[0].row(stem).data(),
                                         .projection10 = projected_.projections[1].row(stem).data(),
                                         .total09 = projected_.totals[0].data(),
                                         .total10 = projected_.totals[1].data(),
                                         .difference = projected_.differences.row(stem).data()});
}

}  // namespace verdel::internal
