#pragma once

#include <algorithm>
#include <complex>
#include <cstddef>
#include <span>
#include <utility>
#include <vector>

#include "allocation/c14_constants.hpp"
#include "allocation/cell_grid.hpp"
#include "signal/arrays.hpp"
#include "signal/transforms.hpp"
#include "support/stop_token.hpp"

/// The one short-time spectrum that the allocator works on: a frame of 2048 samples every 256,
/// periodic Hann window, forward scaled by 1 / sum(window), the inverse an overlap-add divided by
/// the sum of the squared windows (Allen & Rabiner 1977), so that a spectrum left as it was comes
/// back as the signal up to rounding. Frame f is centred on sample f * 256, with zeros outside the
/// signal. Everything depends on nearby samples only, at positions relative to the frame: a slice
/// that begins on a multiple of the hop has the whole signal's frames, bit for bit, away from its
/// ends.
namespace verdel::internal {

/// Frames of the spectrum of a signal of `samples`.
constexpr std::size_t spectrum_frames(std::size_t samples) {
  return (samples + C14_HOP - 1) / C14_HOP + 1;
}

/// Window, scales and plans, made once and shared by all threads.
class SpectralTransform {
 public:
  SpectralTransform();

  const RealTransform<double>& fourier() const { return fourier_; }
  /// The window with the forward scale in it.
  const double* analysis_window() const { return windows_.row(0).data(); }
  /// The window with both inverse scales in it.
  const double* synthesis_window() const { return windows_.row(1).data(); }
  /// What overlap-add divides by: 256 values for a row of samples that frames reach with their
  /// blocks first .. last (a frame has eight blocks of one hop; all eight away from the ends).
  std::span<const double> norm(std::size_t first_block, std::size_t last_block) const;

 private:
  static constexpr std::size_t kBlocks = C14_FFT_SIZE / C14_HOP;
  RealTransform<double> fourier_;
  Array2D<double> windows_;
  Array2D<double> norms_;  // a row for each pair of blocks
};

/// The buffers of one thread at one frame.
struct FrameBuffers {
  Array2D<double> time = Array2D<double>::uninitialised(1, C14_FFT_SIZE);
  /// Interleaved bins; as many as the grid stores in a row, so that tiles are read whole.
  Array2D<std::complex<double>> spectrum =
      Array2D<std::complex<double>>::zeros(1, CellGrid::kRowColumns);

  double* bins() { return reinterpret_cast<double*>(spectrum.data()); }
};

/// The samples that a frame covers: signal index begin + n at position n of the frame, for n in
/// first .. stop - 1; outside lie zeros.
struct FrameSpan {
  std::ptrdiff_t begin;
  std::size_t first, stop;
};
inline FrameSpan frame_span(std::size_t frame, std::size_t samples) {
  const auto begin =
      static_cast<std::ptrdiff_t>(frame * C14_HOP) - static_cast<std::ptrdiff_t>(C14_FFT_SIZE / 2);
  const auto length = static_cast<std::ptrdiff_t>(C14_FFT_SIZE);
  const std::ptrdiff_t first = std::clamp<std::ptrdiff_t>(-begin, 0, length);
  const std::ptrdiff_t stop =
      std::clamp<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(samples) - begin, first, length);
  return {begin, static_cast<std::size_t>(first), static_cast<std::size_t>(stop)};
}

/// Forward transform of one frame into buffers.spectrum. The signal is `source`, or the difference
/// of two signals: by linearity the transform of what one adds to the other, at half the price.
void transform_frame(const SpectralTransform& transform, std::span<const double> source,
                     std::size_t frame, FrameBuffers& buffers);
void transform_frame_difference(const SpectralTransform& transform, std::span<const float> minuend,
                                std::span<const double> subtrahend, std::size_t frame,
                                FrameBuffers& buffers);
void transform_frame_difference(const SpectralTransform& transform, std::span<const float> minuend,
                                std::span<const float> subtrahend, std::size_t frame,
                                FrameBuffers& buffers);

/// Stores the frame in buffers.spectrum as float32 into a spectrum on the grid.
void store_frame(const CellGrid& grid, std::size_t frame, const FrameBuffers& buffers,
                 float* spectrum);

/// The spectrum of a signal, complex float32 on the grid (two values a cell).
void _c14_transform(const SpectralTransform& transform, std::span<const double> audio,
                    const CellGrid& grid, std::span<float> spectrum, const StopToken& stop);

/// The inverse, frame by frame: takes the spectra of frames 0, 1, 2 ... in order and hands out the
/// finished samples, a hop at a time, as emit(first_sample, std::span<const double>). Sums run in
/// the order of the frames.
class OverlapAdd {
 public:
  OverlapAdd(const SpectralTransform& transform, std::size_t samples)
      : transform_(transform), samples_(samples), frames_(spectrum_frames(samples)) {}

  /// The next frame is the one in buffers.spectrum, which is destroyed.
  template <class Emit>
  void add(FrameBuffers& buffers, Emit&& emit) {
    accumulate(buffers);
    finish_row(emit);
  }
  /// The next frame is zero throughout.
  template <class Emit>
  void add_zeros(Emit&& emit) {
    finish_row(emit);
  }
  /// No frame is left: hands out the rest.
  template <class Emit>
  void finish(Emit&& emit) {
    while (row_ < frames_ + kBlocks - 1) finish_row(emit);
  }

 private:
  static constexpr std::size_t kBlocks = C14_FFT_SIZE / C14_HOP;

  void accumulate(FrameBuffers& buffers);
  /// Divides the oldest row by its norm and moves the others up; returns its samples' place.
  std::pair<std::size_t, std::span<const double>> take_row();

  template <class Emit>
  void finish_row(Emit&& emit) {
    const auto [first, values] = take_row();
    if (!values.empty()) emit(first, values);
  }

  const SpectralTransform& transform_;
  std::size_t samples_, frames_;
  std::size_t row_ = 0;  // rows of 256 samples of the extended signal that are finished
  AudioArray sums_ = AudioArray::zeros(kBlocks, C14_HOP);  // a ring of rows
  AudioArray finished_ = AudioArray::uninitialised(1, C14_HOP);
};

/// Smooth step from 0 at and below edge0 to 1 at and above edge1; edges in the wrong order give a
/// nearly hard step at edge0.
inline double _c14_smoothstep(double value, double edge0, double edge1) {
  const double t = std::clamp((value - edge0) / std::max(edge1 - edge0, 1e-12), 0.0, 1.0);
  return (t * t) * (3.0 - 2.0 * t);
}

}  // namespace verdel::internal
