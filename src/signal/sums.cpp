#include "signal/sums.hpp"

#include <cassert>

namespace verdel::internal {
namespace {

template <class Value>
VERDEL_INLINE double product_sum(const Value* p, const Value* q, std::size_t count) {
  return lane_sum(
      count, [ p, q ](std::size_t i) __attribute__((always_inline)) {
        return static_cast<double>(p[i]) * static_cast<double>(q[i]);
      });
}

// Zero times a value is zero if the value is finite and not a number otherwise.
template <class Value>
VERDEL_INLINE double sum_of_zeros(const Value* values, std::size_t count) {
  return lane_sum(
      count, [values](std::size_t i)
                 __attribute__((always_inline)) { return 0.0 * static_cast<double>(values[i]); });
}

}  // namespace

double sum_of_squares(std::span<const float> values) {
  return run_kernel<product_sum<float>>(values.data(), values.data(), values.size());
}

double sum_of_squares(std::span<const double> values) {
  return run_kernel<product_sum<double>>(values.data(), values.data(), values.size());
}

double sum_of_products(std::span<const float> p, std::span<const float> q) {
  assert(p.size() == q.size());
  return run_kernel<product_sum<float>>(p.data(), q.data(), p.size());
}

bool all_finite(std::span<const float> values) {
  return run_kernel<sum_of_zeros<float>>(values.data(), values.size()) == 0.0;
}

bool all_finite(std::span<const double> values) {
  return run_kernel<sum_of_zeros<double>>(values.data(), values.size()) == 0.0;
}

}  // namespace verdel::internal
