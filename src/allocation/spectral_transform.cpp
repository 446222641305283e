#include "allocation/spectral_transform.hpp"

#include "signal/instruction_sets.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kHalfFrame = C14_FFT_SIZE / 2;

VERDEL_INLINE void window_signal(const double* __restrict signal, const double* __restrict window,
                                 std::size_t count, double* __restrict time) {
  for (std::size_t n = 0; n < count; ++n) time[n] = signal[n] * window[n];
}

template <class Subtrahend>
VERDEL_INLINE void window_difference(const float* __restrict a, const Subtrahend* __restrict b,
                                     const double* __restrict window, std::size_t count,
                                     double* __restrict time) {
  for (std::size_t n = 0; n < count; ++n) {
    time[n] = (static_cast<double>(a[n]) - static_cast<double>(b[n])) * window[n];
  }
}

VERDEL_INLINE void add_windowed(const double* __restrict time, const double* __restrict window,
                                std::size_t count, double* __restrict sums) {
  for (std::size_t n = 0; n < count; ++n) sums[n] += time[n] * window[n];
}

VERDEL_INLINE void split_columns(const double* __restrict bins, std::size_t columns,
                                 float* __restrict real, float* __restrict imaginary) {
  for (std::size_t k = 0; k < columns; ++k) {
    real[k] = static_cast<float>(bins[2 * k]);
    imaginary[k] = static_cast<float>(bins[2 * k + 1]);
  }
}

// Fills the frame through `window_part(signal index, position, count)`, zeros where it overhangs.
template <class WindowPart>
void transform_windowed(const SpectralTransform& transform, std::size_t frame, std::size_t samples,
                        FrameBuffers& buffers, WindowPart window_part) {
  const FrameSpan span = frame_span(frame, samples);
  double* time = buffers.time.data();
  std::fill(time, time + span.first, 0.0);
  std::fill(time + span.stop, time + C14_FFT_SIZE, 0.0);
  if (span.stop > span.first) {
    const auto index =
        static_cast<std::size_t>(span.begin + static_cast<std::ptrdiff_t>(span.first));
    window_part(index, span.first, span.stop - span.first, time + span.first);
  }
  transform.fourier().forward(time, buffers.spectrum.data());
}

template <class Subtrahend>
void transform_difference(const SpectralTransform& transform, std::span<const float> minuend,
                          std::span<const Subtrahend> subtrahend, std::size_t frame,
                          FrameBuffers& buffers) {
  assert(minuend.size() == subtrahend.size());
  transform_windowed(transform, frame, minuend.size(), buffers,
                     [&](std::size_t index, std::size_t position, std::size_t count, double* time) {
                       run_kernel<window_difference<Subtrahend>>(
                           minuend.data() + index, subtrahend.data() + index,
                           transform.analysis_window() + position, count, time);
                     });
}

}  // namespace

SpectralTransform::SpectralTransform()
    : fourier_(C14_FFT_SIZE),
      windows_(Array2D<double>::uninitialised(2, C14_FFT_SIZE)),
      norms_(Array2D<double>::zeros(kBlocks * kBlocks, C14_HOP)) {
  const std::vector<double> window = get_window(C14_FFT_SIZE);
  // Half the length is the window's sum; all these scales are powers of two and cost no bits.
  const double sum = static_cast<double>(kHalfFrame);
  for (std::size_t n = 0; n < C14_FFT_SIZE; ++n) {
    windows_.row(0)[n] = window[n] / sum;
    windows_.row(1)[n] = window[n] * (sum / static_cast<double>(C14_FFT_SIZE));
  }
  for (std::size_t first = 0; first < kBlocks; ++first) {
    for (std::size_t last = first; last < kBlocks; ++last) {
      auto row = norms_.row(first * kBlocks + last);
      for (std::size_t block = last + 1; block-- > first;) {
        for (std::size_t n = 0; n < C14_HOP; ++n) {
          row[n] += window[block * C14_HOP + n] * window[block * C14_HOP + n];
        }
      }
      // At the very ends the window is zero and so is the sum: nothing to divide by.
      for (double& value : row) value = value > 1e-10 ? value : 1.0;
    }
  }
}

std::span<const double> SpectralTransform::norm(std::size_t first_block,
                                                std::size_t last_block) const {
  assert(first_block <= last_block && last_block < kBlocks);
  return norms_.row(first_block * kBlocks + last_block);
}

void transform_frame(const SpectralTransform& transform, std::span<const double> source,
                     std::size_t frame, FrameBuffers& buffers) {
  transform_windowed(transform, frame, source.size(), buffers,
                     [&](std::size_t index, std::size_t position, std::size_t count, double* time) {
                       run_kernel<window_signal>(source.data() + index,
                                                 transform.analysis_window() + position, count,
                                                 time);
                     });
}

void transform_frame_difference(const SpectralTransform& transform, std::span<const float> minuend,
                                std::span<const double> subtrahend, std::size_t frame,
                                FrameBuffers& buffers) {
  transform_difference(transform, minuend, subtrahend, frame, buffers);
}

void transform_frame_difference(const SpectralTransform& transform, std::span<const float> minuend,
                                std::span<const float> subtrahend, std::size_t frame,
                                FrameBuffers& buffers) {
  transform_difference(transform, minuend, subtrahend, frame, buffers);
}

void store_frame(const CellGrid& grid, std::size_t frame, const FrameBuffers& buffers,
                 float* spectrum) {
  const auto* bins = reinterpret_cast<const double*>(buffers.spectrum.data());
  for (std::size_t tile = 0; tile < CellGrid::kTiles; ++tile) {
    const std::size_t columns = CellGrid::columns(tile);
    float* row = spectrum + 2 * grid.offset(tile, frame);
    run_kernel<split_columns>(bins + 2 * CellGrid::first_bin(tile), columns, row, row + columns);
  }
}

void _c14_transform(const SpectralTransform& transform, std::span<const double> audio,
                    const CellGrid& grid, std::span<float> spectrum, const StopToken& stop) {
  assert(grid.frames() == spectrum_frames(audio.size()));
  assert(spectrum.size() == 2 * grid.stored_cells());
  FrameBuffers buffers;
  for (std::size_t frame = 0; frame < grid.frames(); ++frame) {
    if (frame % 256 == 0) stop.check();
    transform_frame(transform, audio, frame, buffers);
    store_frame(grid, frame, buffers, spectrum.data());
  }
}

void OverlapAdd::accumulate(FrameBuffers& buffers) {
  assert(row_ < frames_);
  double* time = buffers.time.data();
  transform_.fourier().inverse(buffers.spectrum.data(), time);
  // The ring's oldest row is the frame's first one.
  const std::size_t start = (row_ % kBlocks) * C14_HOP;
  const std::size_t head = C14_FFT_SIZE - start;
  const double* window = transform_.synthesis_window();
  run_kernel<add_windowed>(time, window, head, sums_.data() + start);
  run_kernel<add_windowed>(time + head, window + head, start, sums_.data());
}

std::pair<std::size_t, std::span<const double>> OverlapAdd::take_row() {
  const std::size_t row = row_++;
  double* sums = sums_.row(row % kBlocks).data();
  double* finished = finished_.data();
  const std::size_t first_block = row < frames_ ? 0 : row - frames_ + 1;
  const auto norm = transform_.norm(first_block, std::min(row, kBlocks - 1));
  for (std::size_t n = 0; n < C14_HOP; ++n) {
    finished[n] = sums[n] / norm[n];
    sums[n] = 0.0;
  }
  // The first and last half frame are the zeros that the forward transform put around the signal.
  constexpr std::size_t kLead = kHalfFrame / C14_HOP;
  if (row < kLead) return {};
  const std::size_t first = (row - kLead) * C14_HOP;
  const std::size_t stop = std::min(samples_, (frames_ - 1) * C14_HOP);
  if (first >= stop) return {};
  return {first, std::as_const(finished_).flat().first(std::min(C14_HOP, stop - first))};
}

}  // namespace verdel::internal
