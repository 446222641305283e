#pragma once

#include <complex>
#include <cstddef>
#include <span>

#include "signal/instruction_sets.hpp"

namespace verdel::internal {

/// For run_kernel; written out, because the products of std::complex look for infinities. Where the
/// spans differ in length, the last one's counts, and no other may be shorter.

/// sums += conj(x) * y.
VERDEL_INLINE void add_correlation(std::span<const std::complex<float>> x,
                                   std::span<const std::complex<float>> y,
                                   std::span<std::complex<float>> sums) {
  const auto* __restrict a = reinterpret_cast<const float*>(x.data());
  const auto* __restrict b = reinterpret_cast<const float*>(y.data());
  auto* __restrict to = reinterpret_cast<float*>(sums.data());
  for (std::size_t k = 0; k < sums.size(); ++k) {
    to[2 * k] += a[2 * k] * b[2 * k] + a[2 * k + 1] * b[2 * k + 1];
    to[2 * k + 1] += a[2 * k] * b[2 * k + 1] - a[2 * k + 1] * b[2 * k];
  }
}

/// product = x * y.
VERDEL_INLINE void multiply(std::span<const std::complex<float>> x,
                            std::span<const std::complex<float>> y,
                            std::span<std::complex<float>> product) {
  const auto* __restrict a = reinterpret_cast<const float*>(x.data());
  const auto* __restrict b = reinterpret_cast<const float*>(y.data());
  auto* __restrict to = reinterpret_cast<float*>(product.data());
  for (std::size_t k = 0; k < product.size(); ++k) {
    to[2 * k] = a[2 * k] * b[2 * k] - a[2 * k + 1] * b[2 * k + 1];
    to[2 * k + 1] = a[2 * k] * b[2 * k + 1] + a[2 * k + 1] * b[2 * k];
  }
}

}  // namespace verdel::internal
