#include "alignment/lag_search.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <vector>

#include "signal/arrays.hpp"
#include "signal/moving_average.hpp"
#include "signal/transforms.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kWindowSeconds = 10;    // the longest stretch that one search compares
constexpr std::size_t kFewestSamples = 1024;  // a shorter stretch proves nothing
constexpr double kAudible = 1e-8;             // below it at every sample, a stretch is silence
constexpr double kClearWinner = 1.02;         // by how much a lag must beat lag 0
constexpr std::size_t kSectionSeconds = 5;    // the shortest section that may vote
constexpr std::size_t kMostSections = 4;
constexpr double kSilentEnergy = 1e-30;        // mean square of a signal that is all silence
constexpr double kQuietestVoter = 0.0001;      // -40 dB under the loudest section
constexpr double kToleranceSeconds = 0.00025;  // how far a section's lag may be from the whole's
constexpr double kSmallestTolerance = 2.0;     // samples
constexpr std::ptrdiff_t kTooSmall = 2;        // lags up to here are below the search's precision
constexpr std::size_t kLeastTransform = 16384;
constexpr std::size_t kSamplesPerCheck = 65536;

// Index of the first maximum of the moving mean square over half a second. The sums are not divided
// by their common size: that moves no maximum.
std::size_t loudest_place(std::span<const double> signal, int sr, const StopToken& stop) {
  const auto size = static_cast<std::size_t>(std::max(sr / 2, 3));
  std::size_t place = 0;
  double highest = -1.0;
  for_each_window_sum(
      signal.size(), size, [signal](std::size_t i) { return signal[i] * signal[i]; },
      [&](std::size_t i, double sum) {
        if (i % kSamplesPerCheck == 0) stop.check();
        if (sum > highest) {
          highest = sum;
          place = i;
        }
      });
  return place;
}

// The largest lag searched. Beyond length - 1 the two stretches have no sample in common.
std::size_t search_range(int sr, double max_ms, std::size_t length) {
  const double range = sr * max_ms / 1000.0;
  if (!(range >= 1.0)) return 0;
  return static_cast<std::size_t>(std::min(range, static_cast<double>(length - 1)));
}

// Transforms the signal with `silence` zeros in front and as many behind as the length asks for.
void transform_padded(const RealTransform<double>& transform, std::size_t silence,
                      std::span<const double> signal, AudioArray& time,
                      Array2D<std::complex<double>>& spectrum) {
  const auto samples = time.flat();
  std::ranges::fill(samples.first(silence), 0.0);
  std::ranges::copy(signal, samples.subspan(silence).begin());
  std::ranges::fill(samples.subspan(silence + signal.size()), 0.0);
  transform.forward(time.data(), spectrum.data());
}

// sums += a conj(b), by parts: the operator of std::complex also sorts out infinities, at a price.
void add_cross_spectrum(std::span<const std::complex<double>> a,
                        std::span<const std::complex<double>> b,
                        std::span<std::complex<double>> sums) {
  for (std::size_t k = 0; k < sums.size(); ++k) {
    const double re = a[k].real() * b[k].real() + a[k].imag() * b[k].imag();
    const double im = a[k].imag() * b[k].real() - a[k].real() * b[k].imag();
    sums[k] = {sums[k].real() + re, sums[k].imag() + im};
  }
}

// Absolute sums of a[n + lag] b[n]; element j stands for lag j - max_lag. Scaled by the transform's
// length.
//
// b is cut into blocks, each against its surroundings in a, and the blocks' spectra are added: the
// same sums as from one transform of twice the stretch, at half the time, since these stay in the
// cache.
std::vector<double> correlation_magnitudes(std::span<const double> a, std::span<const double> b,
                                           std::size_t max_lag, const StopToken& stop) {
  const std::size_t lags = 2 * max_lag + 1;
  const RealTransform<double> transform(std::bit_ceil(std::max(kLeastTransform, 2 * lags)));
  const std::size_t block = transform.length() - lags;
  auto time = AudioArray::uninitialised(1, transform.length());
  auto a_spectrum = Array2D<std::complex<double>>::uninitialised(1, transform.bins());
  auto b_spectrum = Array2D<std::complex<double>>::uninitialised(1, transform.bins());
  auto sums = Array2D<std::complex<double>>::zeros(1, transform.bins());
  for (std::size_t first = 0; first < b.size(); first += block) {
    stop.check();
    const std::size_t before = std::min(first, max_lag);
    const std::size_t end = std::min(first + block + max_lag, a.size());
    const auto surroundings = a.subspan(first - before, end - (first - before));
    const auto samples = b.subspan(first, std::min(block, b.size() - first));
    transform_padded(transform, max_lag - before, surroundings, time, a_spectrum);
    transform_padded(transform, 0, samples, time, b_spectrum);
    add_cross_spectrum(a_spectrum.flat(), b_spectrum.flat(), sums.flat());
  }
  transform.inverse(sums.data(), time.data());
  std::vector<double> magnitudes(lags);
  for (std::size_t j = 0; j < lags; ++j) magnitudes[j] = std::abs(time.data()[j]);
  return magnitudes;
}

double mean_square(std::span<const double> signal) {
  double sum = 0.0;
  for (const double sample : signal) sum += sample * sample;
  return sum / static_cast<double>(signal.size());
}

// The n samples as `count` sections of equal length, as nearly as whole samples allow.
std::span<const double> section_of(std::span<const double> signal, std::size_t index,
                                   std::size_t count) {
  const auto edge = [&](std::size_t i) {
    const double position = static_cast<double>(i * signal.size()) / static_cast<double>(count);
    return static_cast<std::size_t>(std::nearbyint(position));
  };
  return signal.subspan(edge(index), edge(index + 1) - edge(index));
}

}  // namespace

std::ptrdiff_t _find_lag_window(std::span<const double> a_mono, std::span<const double> b_mono,
                                int sr, double max_ms, const StopToken& stop) {
  assert(a_mono.size() == b_mono.size() && sr > 0);
  const std::size_t length = std::min(kWindowSeconds * static_cast<std::size_t>(sr), a_mono.size());
  if (length < kFewestSamples) return 0;
  const std::size_t peak_at = loudest_place(b_mono, sr, stop);
  const std::size_t start =
      std::min(a_mono.size() - length, peak_at - std::min(peak_at, length / 2));
  const auto a = a_mono.subspan(start, length);
  const auto b = b_mono.subspan(start, length);
  if (std::ranges::all_of(b, [](double sample) { return std::abs(sample) <= kAudible; })) return 0;

  const std::size_t max_lag = search_range(sr, max_ms, length);
  const auto magnitudes = correlation_magnitudes(a, b, max_lag, stop);
  if (!std::ranges::all_of(magnitudes, [](double sum) { return std::isfinite(sum); })) return 0;
  const auto best = std::ranges::max_element(magnitudes);
  if (*best <= magnitudes[max_lag] * kClearWinner) return 0;
  return (best - magnitudes.begin()) - static_cast<std::ptrdiff_t>(max_lag);
}

std::ptrdiff_t find_lag(std::span<const double> a_mono, std::span<const double> b_mono, int sr,
                        double max_ms, const StopToken& stop) {
  assert(sr > 0);
  const std::size_t n = std::min(a_mono.size(), b_mono.size());
  const std::size_t section =
      std::max(kFewestSamples, kSectionSeconds * static_cast<std::size_t>(sr));
  const std::size_t count = std::min(n / section, kMostSections);
  if (count < 2) return 0;
  const auto a = a_mono.first(n);
  const auto b = b_mono.first(n);

  std::array<double, kMostSections> energy{};
  for (std::size_t i = 0; i < count; ++i) {
    stop.check();
    energy[i] = mean_square(section_of(b, i, count));
    if (!std::isfinite(energy[i])) return 0;
  }
  const double peak = *std::ranges::max_element(energy);
  if (peak <= kSilentEnergy) return 0;

  const auto votes = [&](std::size_t i) { return energy[i] >= peak * kQuietestVoter; };
  std::array<std::ptrdiff_t, kMostSections> lags{};
  std::size_t voters = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (votes(i)) ++voters;
  }
  if (voters < 2) return 0;
  // Most taps stand in line with the mix: they need no vote.
  const std::ptrdiff_t candidate = _find_lag_window(a, b, sr, max_ms, stop);
  if (std::abs(candidate) <= kTooSmall) return 0;
  voters = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (!votes(i)) continue;
    lags[voters++] =
        _find_lag_window(section_of(a, i, count), section_of(b, i, count), sr, max_ms, stop);
  }

  const double tolerance = std::max(kSmallestTolerance, std::nearbyint(sr * kToleranceSeconds));
  const auto agreements = static_cast<std::size_t>(std::count_if(
      lags.begin(), lags.begin() + static_cast<std::ptrdiff_t>(voters), [&](std::ptrdiff_t lag) {
        return static_cast<double>(std::abs(lag - candidate)) <= tolerance;
      }));
  return agreements >= voters / 2 + 1 ? candidate : 0;
}

}  // namespace verdel::internal
