#include "excerpt/onset_curve.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <span>
#include <utility>

#include "signal/sums.hpp"
#include "signal/transforms.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kFrame = 2048;
constexpr std::size_t kBins = kFrame / 2 + 1;
constexpr std::size_t kFramesPerBlock = 1024;

void apply_window(std::span<const double> frame, std::span<const double> window,
                  std::span<double> windowed) {
  for (std::size_t i = 0; i < windowed.size(); ++i) windowed[i] = frame[i] * window[i];
}

void magnitudes_of(std::span<const std::complex<double>> spectrum, std::span<double> magnitudes) {
  for (std::size_t k = 0; k < magnitudes.size(); ++k) {
    const double re = spectrum[k].real(), im = spectrum[k].imag();
    magnitudes[k] = std::sqrt(re * re + im * im);
  }
}

// The order of max's arguments lets a difference that is no number through.
double rise(double now, double before) {
  return std::max(now - before, 0.0);
}

double total_rise(std::span<const double> now, std::span<const double> before) {
  return lane_sum(now.size(), [=](std::size_t k) { return rise(now[k], before[k]); });
}

}  // namespace

std::vector<double> onset_curve(AudioView mix, const StopToken& stop) {
  if (mix.columns() < kFrame) return {};
  const std::size_t frames = 1 + (mix.columns() - kFrame) / kOnsetHop;
  std::vector<double> flux(frames - 1);
  const std::vector<double> window = hanning(kFrame);
  const RealTransform<double> transform(kFrame);
  std::vector<double> mono;
  auto windowed = AudioArray::uninitialised(1, kFrame);
  auto spectrum = Array2D<std::complex<double>>::uninitialised(1, kBins);
  auto magnitudes = AudioArray::uninitialised(1, kBins);
  auto previous = AudioArray::uninitialised(1, kBins);

  for (std::size_t block = 0; block < frames; block += kFramesPerBlock) {
    stop.check();
    const std::size_t count = std::min(kFramesPerBlock, frames - block);
    mono.resize((count - 1) * kOnsetHop + kFrame);
    for (std::size_t i = 0; i < mono.size(); ++i) mono[i] = mono_at(mix, block * kOnsetHop + i);
    for (std::size_t f = 0; f < count; ++f) {
      apply_window(std::span(mono).subspan(f * kOnsetHop, kFrame), window, windowed.flat());
      transform.forward(windowed.data(), spectrum.data());
      magnitudes_of(spectrum.flat(), magnitudes.flat());
      if (block + f > 0) flux[block + f - 1] = total_rise(magnitudes.flat(), previous.flat());
      std::swap(magnitudes, previous);
    }
  }
  return flux;
}

}  // namespace verdel::internal
