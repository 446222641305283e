#include "allocation/spectral_frames.hpp"

#include <vector>

#include "signal/instruction_sets.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

VERDEL_INLINE void window_signal(const double* __restrict signal, const double* __restrict window,
                                 std::size_t count, double* __restrict time) {
  for (std::size_t n = 0; n < count; ++n) time[n] = signal[n] * window[n];
}

VERDEL_INLINE void add_windowed_pair(const float* __restrict pair, const float* __restrict window,
                                     std::size_t count, double* __restrict first,
                                     double* __restrict second) {
  for (std::size_t n = 0; n < count; ++n) {
    first[n] += static_cast<double>(pair[2 * n] * window[n]);
    second[n] += static_cast<double>(pair[2 * n + 1] * window[n]);
  }
}

/// The sums of the squared windows over blocks first .. last, as what to multiply with.
Array2D<double> overlap_weights(const std::vector<double>& window) {
  auto weights = Array2D<double>::zeros(kFrameHops * kFrameHops, C14_HOP);
  for (std::size_t first = 0; first < kFrameHops; ++first) {
    for (std::size_t last = first; last < kFrameHops; ++last) {
      auto row = weights.row(first * kFrameHops + last);
      for (std::size_t block = last + 1; block-- > first;) {
        for (std::size_t n = 0; n < C14_HOP; ++n) {
          row[n] += window[block * C14_HOP + n] * window[block * C14_HOP + n];
        }
      }
      // At the very ends the window is zero and so is the sum: nothing to divide by.
      for (double& value : row) value = 1.0 / (value > 1e-10 ? value : 1.0);
    }
  }
  return weights;
}

}  // namespace

SpectralTransform::SpectralTransform()
    : fourier_(C14_FFT_SIZE),
      pair_fourier_(C14_FFT_SIZE),
      windows_(Array2D<double>::uninitialised(1, C14_FFT_SIZE)),
      weights_(overlap_weights(get_window(C14_FFT_SIZE))),
      pair_windows_(Array2D<float>::uninitialised(2, C14_FFT_SIZE)) {
  const std::vector<double> window = get_window(C14_FFT_SIZE);
  // Half the length is the window's sum; all these scales are powers of two and cost no bits.
  const double sum = static_cast<double>(C14_FFT_SIZE) / 2.0;
  for (std::size_t n = 0; n < C14_FFT_SIZE; ++n) {
    windows_.data()[n] = window[n] / sum;
    pair_windows_.row(0)[n] = static_cast<float>(window[n] / sum);
    pair_windows_.row(1)[n] =
        static_cast<float>(window[n] * (sum / static_cast<double>(C14_FFT_SIZE)));
  }
}

std::span<const double> SpectralTransform::weight(std::size_t first_block,
                                                  std::size_t last_block) const {
  assert(first_block <= last_block && last_block < kFrameHops);
  return weights_.row(first_block * kFrameHops + last_block);
}

void transform_frame(const SpectralTransform& transform, const HopRing<double>& signal,
                     std::size_t frame, const SignalExtent& extent, FrameBuffers& buffers) {
  double* time = buffers.time.data();
  for_each_hop(
      frame, extent,
      [&](std::size_t hop, std::size_t count, std::size_t position) {
        run_kernel<window_signal>(signal.hop(0, hop), transform.analysis_window() + position, count,
                                  time + position);
      },
      [&](std::size_t position, std::size_t count) { std::fill_n(time + position, count, 0.0); });
  transform.fourier().forward(time, buffers.spectrum.data());
}

PairOverlap::PairOverlap(const SpectralTransform& transform, const SignalExtent& extent,
                         std::size_t rows)
    : transform_(transform),
      extent_(extent),
      sums_(Array2D<double>::zeros(2 * rows, C14_FFT_SIZE)) {}

void PairOverlap::add(std::size_t row, std::size_t frame, PairBuffers& buffers) {
  transform_.pair_fourier().inverse(buffers.spectrum.data(), buffers.time.data());
  // The ring's oldest hop is the frame's first one.
  const std::size_t start = frame % kFrameHops * C14_HOP, head = C14_FFT_SIZE - start;
  const float* pair = buffers.samples();
  const float* window = transform_.pair_synthesis_window();
  double* first = sums_.row(2 * row).data();
  double* second = sums_.row(2 * row + 1).data();
  run_kernel<add_windowed_pair>(pair, window, head, first + start, second + start);
  run_kernel<add_windowed_pair>(pair + 2 * head, window + head, start, first, second);
}

const double* PairOverlap::weight_at(std::size_t frame) const {
  const std::size_t frames = extent_.frames();
  const std::size_t first_block = frame < frames ? 0 : frame - frames + 1;
  return transform_.weight(first_block, std::min(frame, kFrameHops - 1)).data();
}

}  // namespace verdel::internal
