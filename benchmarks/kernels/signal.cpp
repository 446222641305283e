#include <benchmark/benchmark.h>

#include <algorithm>
#include <complex>
#include <cstddef>

#include "items.hpp"
#include "signal/arrays.hpp"
#include "signal/moving_average.hpp"
#include "signal/transforms.hpp"

// The functions that everything else is made of. Arguments are lengths in samples.
namespace verdel::internal {
namespace {

template <class Real>
void real_forward(benchmark::State& state) {
  const RealTransform<Real> transform(static_cast<std::size_t>(state.range(0)));
  auto time = Array2D<Real>::uninitialised(1, transform.length());
  auto spectrum = Array2D<std::complex<Real>>::uninitialised(1, transform.bins());
  fill_with_bursts(time.flat(), 0);
  for (auto _ : state) {
    transform.forward(time.data(), spectrum.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(real_forward<double>)->Arg(2048)->Arg(1 << 20);
BENCHMARK(real_forward<float>)->Arg(2048)->Arg(1 << 20);

/// The inverse destroys its spectrum, so every turn begins with a copy of it, as in the allocator.
template <class Real>
void real_inverse(benchmark::State& state) {
  const RealTransform<Real> transform(static_cast<std::size_t>(state.range(0)));
  auto time = Array2D<Real>::uninitialised(1, transform.length());
  auto kept = Array2D<std::complex<Real>>::uninitialised(1, transform.bins());
  auto spectrum = Array2D<std::complex<Real>>::uninitialised(1, transform.bins());
  fill_with_bursts(time.flat(), 0);
  transform.forward(time.data(), kept.data());
  for (auto _ : state) {
    std::copy(kept.flat().begin(), kept.flat().end(), spectrum.flat().begin());
    transform.inverse(spectrum.data(), time.data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(real_inverse<double>)->Arg(2048)->Arg(1 << 20);

/// One second of 44.1 kHz audio; the argument is the window.
void moving_average(benchmark::State& state) {
  auto input = Array2D<double>::uninitialised(1, 44100);
  auto output = Array2D<double>::uninitialised(1, 44100);
  fill_with_bursts(input.flat(), 0);
  for (auto _ : state) {
    for_each_window_sum(
        input.size(), static_cast<std::size_t>(state.range(0)),
        [&](std::size_t i) { return input.data()[i]; },
        [&](std::size_t i, double sum) { output.data()[i] = sum; });
    benchmark::ClobberMemory();
  }
  count_items(state, "sample", 44100);
}
BENCHMARK(moving_average)->Arg(9)->Arg(1323)->Arg(5292);

}  // namespace
}  // namespace verdel::internal
