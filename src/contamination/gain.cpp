#include "contamination/gain.hpp"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

constexpr float kLargestGain = 50.0F;

template <class Sample>
VERDEL_INLINE void products(const Sample*, const Sample*, std::size_t, float*, float*);

template <>
VERDEL_INLINE void products<float>(const float* __restrict stem, const float* __restrict tap,
                                   std::size_t count, float* __restrict cross,
                                   float* __restrict energy) {
  for (std::size_t i = 0; i < count; ++i) {
    cross[i] = stem[i] * tap[i];
    energy[i] = tap[i] * tap[i];
  }
}

template <>
VERDEL_INLINE void products<std::complex<float>>(const std::complex<float>* stem,
                                                 const std::complex<float>* tap, std::size_t count,
                                                 float* __restrict cross,
                                                 float* __restrict energy) {
  const auto* __restrict s = reinterpret_cast<const float*>(stem);
  const auto* __restrict t = reinterpret_cast<const float*>(tap);
  for (std::size_t i = 0; i < count; ++i) {
    cross[i] = s[2 * i] * t[2 * i] + s[2 * i + 1] * t[2 * i + 1];
    energy[i] = t[2 * i] * t[2 * i] + t[2 * i + 1] * t[2 * i + 1];
  }
}

// The gains from the windowed products. Where the tap's energy at the window's ends comes out below
// zero, the window goes without its ends.
VERDEL_INLINE void form_gains(const float* __restrict cross_whole,
                              const float* __restrict cross_ends,
                              const float* __restrict energy_whole,
                              const float* __restrict energy_ends, float floor, std::size_t count,
                              float* __restrict gain) {
  for (std::size_t i = 0; i < count; ++i) {
    const float cross_end = cross_ends[i], energy_end = energy_ends[i];
    const float cross = cross_whole[i] + (energy_end > 0.0F ? cross_end : 0.0F);
    const float energy = energy_whole[i] + (energy_end > 0.0F ? energy_end : 0.0F);
    float g = cross / (energy > floor ? energy : floor);
    g = g > 0.0F ? g : 0.0F;
    g = g < kLargestGain ? g : kLargestGain;
    gain[i] = energy > floor ? g : 0.0F;
  }
}

template <class Sample>
VERDEL_INLINE void subtract(const float*, const Sample*, std::size_t, Sample*);

template <>
VERDEL_INLINE void subtract<float>(const float* __restrict gain, const float* __restrict tap,
                                   std::size_t count, float* __restrict stem) {
  for (std::size_t i = 0; i < count; ++i) stem[i] -= gain[i] * tap[i];
}

template <>
VERDEL_INLINE void subtract<std::complex<float>>(const float* __restrict gain,
                                                 const std::complex<float>* tap, std::size_t count,
                                                 std::complex<float>* stem) {
  const auto* __restrict t = reinterpret_cast<const float*>(tap);
  auto* __restrict s = reinterpret_cast<float*>(stem);
  for (std::size_t i = 0; i < count; ++i) {
    s[2 * i] -= gain[i] * t[2 * i];
    s[2 * i + 1] -= gain[i] * t[2 * i + 1];
  }
}

// A time beyond the song, reflected into it as often as it takes.
double reflected_into(const GridExtent& extent, double time) {
  const double begin = static_cast<double>(extent.first) - 0.5;
  const auto length = static_cast<double>(extent.stop - extent.first);
  double inside = std::fmod(time - begin, 2 * length);
  if (inside < 0.0) inside += 2 * length;
  return begin + std::min(inside, 2 * length - inside);
}

// Fills the window's reach beyond either end of the song. The ends fall between grid points, so
// what a reflected point sees is interpolated between two of them.
void reflect_beyond_song(const GridExtent& extent, std::size_t padding, std::span<float> padded) {
  const auto begin = static_cast<std::ptrdiff_t>(extent.point_begin());
  const auto end = static_cast<std::ptrdiff_t>(extent.point_end());
  const auto reach = static_cast<std::ptrdiff_t>(padding);
  float* const grid = padded.data() + padding;
  const auto reflect = [&](std::ptrdiff_t point) {
    const double time = reflected_into(extent, static_cast<double>(point) * extent.step);
    const double place = time / extent.step;
    const auto left = std::clamp(static_cast<std::ptrdiff_t>(std::floor(place)), begin, end - 1);
    const auto right = std::min(left + 1, end - 1);
    const auto toward_right =
        static_cast<float>(std::clamp(place - static_cast<double>(left), 0.0, 1.0));
    grid[point] = (1.0F - toward_right) * grid[left] + toward_right * grid[right];
  };
  for (std::ptrdiff_t point = begin - reach; point < begin; ++point) reflect(point);
  for (std::ptrdiff_t point = end; point < end + reach; ++point) reflect(point);
}

void continue_in_circle(std::size_t padding, std::span<float> padded) {
  const std::size_t points = padded.size() - 2 * padding;
  std::copy_n(padded.data() + points, padding, padded.data());
  std::copy_n(padded.data() + padding, padding, padded.data() + padding + points);
}

// Around the circle from the song's end to its beginning the gain stays as it was, goes over in a
// straight line, and stays again. Whatever of it moves where a filter still rings would be spread
// over the whole slice, for the short transform back cuts off the spectrum.
void bridge_silence(std::size_t begin, std::size_t end, std::span<float> gain) {
  const std::size_t points = gain.size(), gap = begin + points - end, hold = gap / 3;
  const float from = gain[end - 1], to = gain[begin];
  const float slope = (to - from) / static_cast<float>(gap - 2 * hold + 1);
  for (std::size_t i = 0; i < gap; ++i) {
    const std::size_t along = std::clamp(i + 1, hold, gap - hold + 1) - hold;
    gain[(end + i) % points] = from + slope * static_cast<float>(along);
  }
}

void sum_in_windows(const GridExtent& extent, const GridWindow& window,
                    ComparisonScratch::Product& product, std::vector<double>& scratch) {
  const std::size_t padding = window.padding();
  if (extent.all_song()) {
    continue_in_circle(padding, product.padded);
  } else {
    reflect_beyond_song(extent, padding, product.padded);
  }
  product.whole.resize(product.padded.size() - 2 * padding);
  product.ends.resize(product.whole.size());
  window_sums(product.padded, window, scratch, product.whole, product.ends);
}

template <class Sample>
bool remove_explained_samples(const GridExtent& extent, const GridWindow& window,
                              std::span<const Sample> tap, std::span<Sample> stem,
                              ComparisonScratch& scratch) {
  assert(tap.size() == stem.size());
  const std::size_t points = stem.size(), padding = window.padding();
  ComparisonScratch::Product &cross = scratch.cross, &energy = scratch.energy;
  cross.padded.resize(points + 2 * padding);
  energy.padded.resize(points + 2 * padding);
  run_kernel<products<Sample>>(stem.data(), tap.data(), points, cross.padded.data() + padding,
                               energy.padded.data() + padding);
  sum_in_windows(extent, window, cross, scratch.sums);
  sum_in_windows(extent, window, energy, scratch.sums);

  scratch.gain.resize(points);
  const std::size_t begin = extent.point_begin(), end = extent.point_end();
  const std::span<float> gain = std::span(scratch.gain).subspan(begin, end - begin);
  run_kernel<form_gains>(cross.whole.data() + begin, cross.ends.data() + begin,
                         energy.whole.data() + begin, energy.ends.data() + begin,
                         static_cast<float>(kEnergyFloor * window.width), gain.size(), gain.data());
  bridge_silence(begin, end, scratch.gain);
  run_kernel<subtract<Sample>>(scratch.gain.data(), tap.data(), points, stem.data());
  return std::any_of(gain.begin(), gain.end(), [](float g) { return g > 0.0F; });
}

}  // namespace

std::size_t GridExtent::point_begin() const {
  return static_cast<std::size_t>(std::ceil(static_cast<double>(first) / step));
}

std::size_t GridExtent::point_end() const {
  return static_cast<std::size_t>(std::floor(static_cast<double>(stop - 1) / step)) + 1;
}

bool remove_explained(const GridExtent& extent, const GridWindow& window,
                      std::span<const float> tap, std::span<float> stem,
                      ComparisonScratch& scratch) {
  return remove_explained_samples(extent, window, tap, stem, scratch);
}

bool remove_explained(const GridExtent& extent, const GridWindow& window,
                      std::span<const std::complex<float>> tap, std::span<std::complex<float>> stem,
                      ComparisonScratch& scratch) {
  return remove_explained_samples(extent, window, tap, stem, scratch);
}

}  // namespace verdel::internal
