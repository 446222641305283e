#include "allocation/channel_spectra.hpp"

#include <algorithm>

#include "signal/instruction_sets.hpp"
#include "signal/sums.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

VERDEL_INLINE void window_model(const float* __restrict tap, const double* __restrict gain,
                                const double* __restrict window, std::size_t count,
                                double* __restrict time) {
  for (std::size_t n = 0; n < count; ++n) {
    time[n] = static_cast<double>(tap[n]) * gain[n] * window[n];
  }
}

VERDEL_INLINE void add_model(const float* __restrict tap, const double* __restrict gain,
                             std::size_t count, double* __restrict sum) {
  for (std::size_t n = 0; n < count; ++n) sum[n] += static_cast<double>(tap[n]) * gain[n];
}

VERDEL_INLINE void split_bins(const double* __restrict bins, SpectrumRing& ring, std::size_t row,
                              std::size_t frame) {
  for (std::size_t tile = 0; tile < Tile::kCount; ++tile) {
    const double* __restrict from = bins + 2 * tile * Tile::kBins;
    float* __restrict to = ring.tile(row, tile) + SpectrumRing::offset(frame);
    for (std::size_t b = 0; b < Tile::kBins; ++b) {
      to[b] = static_cast<float>(from[2 * b]);
      to[Tile::kBins + b] = static_cast<float>(from[2 * b + 1]);
    }
  }
}

}  // namespace

ChannelSpectra::ChannelSpectra(const ChannelJob& job, const SpectralTransform& transform)
    : job_(job),
      transform_(transform),
      extent_{job.samples()},
      models_(job.stems()),
      silent_frames_(job.stems()),
      silent_hops_(job.stems(), 0) {}

void ChannelSpectra::extend(const Block& frames) {
  for (std::size_t frame = frames.first; frame < frames.stop; ++frame) {
    for (; hops_ < frame + kFrameHops / 2; ++hops_) {
      make_residual(hops_);
      for (std::size_t stem = 0; stem < stems(); ++stem) count_silence(stem, hops_);
    }
    for (std::size_t stem = 0; stem < stems(); ++stem) {
      const std::size_t before = frame > 0 ? silent_frames_.at(stem, frame - 1) : 0;
      const bool silent = silent_hops_[stem] >= std::min(hops_, kFrameHops);
      silent_frames_.at(stem, frame) = silent ? before + 1 : 0;
    }
    transform_frame(transform_, residual_samples_, frame, extent_, buffers_);
    run_kernel<split_bins>(buffers_.bins(), residual_, std::size_t{0}, frame);
  }
  for (std::size_t stem = 0; stem < stems(); ++stem) {
    for (std::size_t frame = frames.first; frame < frames.stop; ++frame) {
      transform_model(stem, frame);
    }
  }
}

bool ChannelSpectra::is_silent(std::size_t stem, std::ptrdiff_t first, std::size_t stop) const {
  const std::size_t last = std::min(stop, extent_.frames()) - 1;
  const auto begin = static_cast<std::size_t>(std::max<std::ptrdiff_t>(first, 0));
  return silent_frames_.at(stem, last) >= last + 1 - begin;
}

void ChannelSpectra::make_residual(std::size_t hop) {
  const std::size_t count = extent_.hop_samples(hop), first = hop * C14_HOP;
  double* residual = residual_samples_.hop(0, hop);
  std::fill_n(residual, C14_HOP, 0.0);
  for (const auto& tap : job_.taps) {
    run_kernel<add_model>(tap.data() + first, job_.gain.data() + first, count, residual);
  }
  for (std::size_t n = 0; n < count; ++n) residual[n] = job_.mix[first + n] - residual[n];
  if (all_finite({residual, count})) return;
  if (!all_finite(job_.mix.subspan(first, count))) {
    throw FloatingPointError("non-finite candidate-14 residual");
  }
  throw ValueError("candidate-14 models must match the finite residual");
}

void ChannelSpectra::count_silence(std::size_t stem, std::size_t hop) {
  const std::size_t count = extent_.hop_samples(hop);
  const bool silent =
      count == 0 || std::ranges::all_of(job_.taps[stem].subspan(hop * C14_HOP, count),
                                        [](float value) { return value == 0.0F; });
  silent_hops_[stem] = silent ? silent_hops_[stem] + 1 : 0;
}

void ChannelSpectra::transform_model(std::size_t stem, std::size_t frame) {
  if (silent_frames_.at(stem, frame) > 0) {
    std::ranges::fill(buffers_.spectrum.flat(), 0.0);
  } else {
    double* time = buffers_.time.data();
    for_each_hop(
        frame, extent_,
        [&](std::size_t hop, std::size_t count, std::size_t position) {
          const std::size_t first = hop * C14_HOP;
          run_kernel<window_model>(job_.taps[stem].data() + first, job_.gain.data() + first,
                                   transform_.analysis_window() + position, count, time + position);
        },
        [&](std::size_t position, std::size_t count) { std::fill_n(time + position, count, 0.0); });
    transform_.fourier().forward(time, buffers_.spectrum.data());
  }
  run_kernel<split_bins>(buffers_.bins(), models_, stem, frame);
}

}  // namespace verdel::internal
