#include "allocation/endpoint_rendering.hpp"

#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

// Frames of one stem in a row, so that its sums stay in the near cache.
constexpr std::size_t kRun = 16;

// A stem that was silent for so long claims its floor, which is 1e-23 of 0.2 at most: beside claims
// of more than this in every cell it gets less than 4e-9 of the residual.
constexpr double kAudibleTotal = 1.6e-15;

// Both shares of one frame as one complex signal: the one's spectrum plus i times the other's. Bins
// above half the rate are the conjugates.
VERDEL_INLINE void pair_shares(const float* claims09, const float* claims10, const float* units09,
                               const float* units10, float* __restrict spectrum) {
  float* mirrored = spectrum + 2 * C14_FFT_SIZE;
  for (std::size_t tile = 0; tile + 1 < Tile::kCount; ++tile) {
    const float* a = claims09 + tile * Tile::kBins;
    const float* c = claims10 + tile * Tile::kBins;
    const float* u = units09 + tile * 2 * Tile::kBins;
    const float* v = units10 + tile * 2 * Tile::kBins;
    const std::size_t at = 2 * tile * Tile::kBins;
    VERDEL_INDEPENDENT
    for (std::size_t b = 0; b < Tile::kBins; ++b) {
      const float re09 = a[b] * u[b], im09 = a[b] * u[Tile::kBins + b];
      const float re10 = c[b] * v[b], im10 = c[b] * v[Tile::kBins + b];
      spectrum[at + 2 * b] = re09 - im10;
      spectrum[at + 2 * b + 1] = im09 + re10;
      *(mirrored - at - 2 * b) = re09 + im10;
      *(mirrored - at - 2 * b + 1) = re10 - im09;
    }
  }
  // At 0 and at half the rate a real signal has no imaginary part.
  constexpr std::size_t kLast = C14_BINS - 1;
  spectrum[0] = claims09[0] * units09[0];
  spectrum[1] = claims10[0] * units10[0];
  spectrum[2 * kLast] = claims09[kLast] * units09[2 * kLast];
  spectrum[2 * kLast + 1] = claims10[kLast] * units10[2 * kLast];
}

VERDEL_INLINE void scale_hop(const double* __restrict sums, const double* __restrict weight,
                             float* __restrict share) {
  for (std::size_t n = 0; n < C14_HOP; ++n) share[n] = static_cast<float>(sums[n] * weight[n]);
}

VERDEL_INLINE void add_hop(const float* __restrict share, double* __restrict sum) {
  for (std::size_t n = 0; n < C14_HOP; ++n) sum[n] += static_cast<double>(share[n]);
}

}  // namespace

EndpointRendering::EndpointRendering(const ChannelSpectra& spectra, const SourceScoring& scoring,
                                     const SpectralTransform& transform)
    : spectra_(spectra),
      scoring_(scoring),
      transform_(transform),
      overlap_(transform, spectra.extent(), spectra.stems()),
      shares_(2 * spectra.stems()),
      left_out_(spectra.stems()) {}

void EndpointRendering::render(const Block& block) {
  for (std::size_t first = block.first; first < block.stop; first += kRun) {
    const std::size_t stop = std::min(first + kRun, block.stop);
    for (std::size_t stem = 0; stem < spectra_.stems(); ++stem) {
      for (std::size_t frame = first; frame < stop; ++frame) {
        const bool silent = may_be_left_out(stem, frame);
        const std::size_t before = frame > 0 ? left_out_.at(stem, frame - 1) : 0;
        left_out_.at(stem, frame) = silent ? before + 1 : 0;
        if (!silent) render_frame(stem, frame);
        finish(stem, frame);
      }
    }
  }
  if (block.stop < spectra_.extent().frames()) return;
  for (std::size_t stem = 0; stem < spectra_.stems(); ++stem) {
    for (std::size_t k = 0; k < PairOverlap::frames_after(); ++k) finish(stem, block.stop + k);
  }
}

bool EndpointRendering::is_silent(std::size_t stem, std::size_t frame) const {
  constexpr std::size_t kOverlap = kFrameHops - 1;
  const std::size_t first = frame - std::min(frame, kOverlap);
  const std::size_t last = std::min(frame + kOverlap, spectra_.extent().frames() - 1);
  return left_out_.at(stem, last) >= last + 1 - first;
}

bool EndpointRendering::may_be_left_out(std::size_t stem, std::size_t frame) const {
  const BlockScores& scores = scoring_.scores();
  if (!(scores.least_total[frame - scores.block.first] > kAudibleTotal)) return false;
  return spectra_.is_silent(
      stem, static_cast<std::ptrdiff_t>(frame) - std::ptrdiff_t{SourceScoring::kBack},
      frame + SourceScoring::kAhead + 1);
}

void EndpointRendering::render_frame(std::size_t stem, std::size_t frame) {
  const BlockScores& scores = scoring_.scores();
  const std::size_t row = frame - scores.block.first;
  const std::size_t claim = stem * Block::kFrames + row;
  run_kernel<pair_shares>(scores.claims[0].row(claim).data(), scores.claims[1].row(claim).data(),
                          scores.unit_shares[0].row(row).data(),
                          scores.unit_shares[1].row(row).data(), buffers_.bins());
  overlap_.add(stem, frame, buffers_);
}

void EndpointRendering::finish(std::size_t stem, std::size_t frame) {
  overlap_.finish(
      stem, frame,
      [&](std::size_t hop, const double* weight, const double* sums09, const double* sums10) {
        float* share10 = shares_.hop(2 * stem + 1, hop);
        run_kernel<scale_hop>(sums09, weight, shares_.hop(2 * stem, hop));
        run_kernel<scale_hop>(sums10, weight, share10);
        double* allocated = allocated_.hop(0, hop);
        if (stem == 0) std::fill_n(allocated, C14_HOP, 0.0);
        run_kernel<add_hop>(share10, allocated);
      });
}

}  // namespace verdel::internal
