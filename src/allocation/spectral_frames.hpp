#pragma once

#include <algorithm>
#include <complex>
#include <cstddef>
#include <span>

#include "allocation/c14_constants.hpp"
#include "allocation/rings.hpp"
#include "signal/arrays.hpp"
#include "signal/transforms.hpp"

/// The one short-time spectrum that the allocator works on: a frame of 2048 samples every 256,
/// periodic Hann window, forward scaled by 1 / sum(window), the inverse an overlap-add divided by
/// the sum of the squared windows (Allen & Rabiner 1977), so that a spectrum left as it was comes
/// back as the signal up to rounding. Frame f is centred on sample f * 256, with zeros outside the
/// signal. Everything depends on nearby samples only, at positions relative to the frame: a slice
/// that begins on a multiple of the hop has the whole signal's frames, bit for bit, away from its
/// ends.
namespace verdel::internal {

inline constexpr std::size_t kFrameHops = C14_FFT_SIZE / C14_HOP;  ///< hops of one frame

/// Frames of the spectrum of a signal of `samples`.
constexpr std::size_t spectrum_frames(std::size_t samples) {
  return (samples + C14_HOP - 1) / C14_HOP + 1;
}

/// The length of a signal, as frames and hops count it.
struct SignalExtent {
  std::size_t samples;
  std::size_t frames() const { return spectrum_frames(samples); }
  /// Samples of a hop that lie in the signal, at its beginning.
  std::size_t hop_samples(std::size_t hop) const {
    const std::size_t first = hop * C14_HOP;
    return first >= samples ? 0 : std::min(C14_HOP, samples - first);
  }
};

/// Window, scales and plans. Double precision where the spectrum of a stem or of a residual is
/// measured, single where a share of it is brought back: two real signals at a time, as the real
/// and the imaginary part of one.
class SpectralTransform {
 public:
  SpectralTransform();

  const RealTransform<double>& fourier() const { return fourier_; }
  const ComplexTransform<float>& pair_fourier() const { return pair_fourier_; }
  /// The window with the forward scale in it.
  const double* analysis_window() const { return windows_.row(0).data(); }
  const float* pair_analysis_window() const { return pair_windows_.row(0).data(); }
  /// The window with both inverse scales in it.
  const float* pair_synthesis_window() const { return pair_windows_.row(1).data(); }
  /// What overlap-add is multiplied with: 256 values for a hop that frames reach with their blocks
  /// first .. last (a frame has eight blocks of one hop; all eight away from the ends).
  std::span<const double> weight(std::size_t first_block, std::size_t last_block) const;

 private:
  RealTransform<double> fourier_;
  ComplexTransform<float> pair_fourier_;
  Array2D<double> windows_, weights_;
  Array2D<float> pair_windows_;
};

/// Room for one frame of a real signal and its spectrum, interleaved.
struct FrameBuffers {
  Array2D<double> time = Array2D<double>::uninitialised(1, C14_FFT_SIZE);
  /// As many bins as tiles hold, so that tiles are read whole.
  Array2D<std::complex<double>> spectrum = Array2D<std::complex<double>>::zeros(1, Tile::kRow);

  double* bins() { return reinterpret_cast<double*>(spectrum.data()); }
};

/// Room for one frame of two real signals as one complex one.
struct PairBuffers {
  Array2D<std::complex<float>> time = Array2D<std::complex<float>>::uninitialised(1, C14_FFT_SIZE);
  /// One bin more than there is, so that bins and their mirror images are written in one loop.
  Array2D<std::complex<float>> spectrum = Array2D<std::complex<float>>::zeros(1, C14_FFT_SIZE + 1);

  float* samples() { return reinterpret_cast<float*>(time.data()); }
  float* bins() { return reinterpret_cast<float*>(spectrum.data()); }
};

/// Calls part(hop, count, position) for the hops under a frame that lie in the signal, count
/// samples of each, and gap(position, count) for what lies outside; position counts from the
/// frame's beginning.
template <class Part, class Gap>
void for_each_hop(std::size_t frame, const SignalExtent& extent, Part part, Gap gap) {
  for (std::size_t k = 0; k < kFrameHops; ++k) {
    const bool before = frame + k < kFrameHops / 2;
    const std::size_t hop = before ? 0 : frame + k - kFrameHops / 2;
    const std::size_t count = before ? 0 : extent.hop_samples(hop);
    if (count > 0) part(hop, count, k * C14_HOP);
    if (count < C14_HOP) gap(k * C14_HOP + count, C14_HOP - count);
  }
}

/// Windows and transforms one frame of a signal that stands in a ring, into buffers.spectrum.
void transform_frame(const SpectralTransform& transform, const HopRing<double>& signal,
                     std::size_t frame, const SignalExtent& extent, FrameBuffers& buffers);

/// Overlap-adds the frames of several rows (two real signals each, as one complex one) and hands
/// out finished hops. Sums run in the order of the frames.
class PairOverlap {
 public:
  /// `rows` pairs of signals.
  PairOverlap(const SpectralTransform& transform, const SignalExtent& extent, std::size_t rows);

  /// Adds the frame whose spectrum stands in the buffers.
  void add(std::size_t row, std::size_t frame, PairBuffers& buffers);

  /// To be called once for every frame in order, after it was added or left out as silence, and for
  /// the frames_after() that follow the last: emit(hop, weight, first sums, second sums) for the
  /// hop that it finishes, if the signal has it. A sample is sum * weight.
  template <class Emit>
  void finish(std::size_t row, std::size_t frame, Emit emit) {
    const std::size_t at = frame % kFrameHops * C14_HOP;
    double* sums[2] = {sums_.row(2 * row).data() + at, sums_.row(2 * row + 1).data() + at};
    // The first half frame is the zeros that the forward transform put before the signal.
    if (frame >= kFrameHops / 2 && extent_.hop_samples(frame - kFrameHops / 2) > 0) {
      emit(frame - kFrameHops / 2, weight_at(frame), sums[0], sums[1]);
    }
    for (double* sum : sums) std::fill_n(sum, C14_HOP, 0.0);
  }
  static constexpr std::size_t frames_after() { return kFrameHops - 1; }

 private:
  const double* weight_at(std::size_t frame) const;

  const SpectralTransform& transform_;
  SignalExtent extent_;
  Array2D<double> sums_;  // [row and signal][ring of hops]
};

/// Smooth step from 0 at and below edge0 to 1 at and above edge1; edges in the wrong order give a
/// nearly hard step at edge0.
inline double _c14_smoothstep(double value, double edge0, double edge1) {
  const double t = std::clamp((value - edge0) / std::max(edge1 - edge0, 1e-12), 0.0, 1.0);
  return (t * t) * (3.0 - 2.0 * t);
}

}  // namespace verdel::internal
