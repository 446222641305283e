#pragma once

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <span>

/// What the micro-benchmarks share.
namespace verdel::internal {

/// Prints the time of one item (a cell, a sample) beside that of the whole call.
inline void count_items(benchmark::State& state, const char* item, std::size_t per_call) {
  state.counters[item] = benchmark::Counter(
      static_cast<double>(per_call),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

/// Bursts of noise that ring out, the same in every run; `place` moves them in time.
template <class Real>
void fill_with_bursts(std::span<Real> signal, std::size_t place) {
  auto random = static_cast<std::uint32_t>(place + 1);
  for (std::size_t i = 0; i < signal.size(); ++i) {
    random = random * 1664525U + 1013904223U;
    const double noise = static_cast<double>(random >> 8U) / 8388608.0 - 1.0;
    const auto since = static_cast<double>((i + 3001 * place) % (17000 + 2000 * place));
    signal[i] = static_cast<Real>(0.4 * noise * std::exp(-2e-4 * since));
  }
}

}  // namespace verdel::internal
