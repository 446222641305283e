#include "delivery/contamination_sums.hpp"

#include <cassert>
#include <cstddef>

#include "signal/instruction_sets.hpp"

namespace verdel {
namespace {

template <class Value>
VERDEL_INLINE double lane_sum(const Value* p, const Value* q, std::size_t count) {
  constexpr std::size_t kLanes = 8;
  double lanes[kLanes] = {};
  const std::size_t whole = count / kLanes * kLanes;
  for (std::size_t i = 0; i < whole; i += kLanes) {
    for (std::size_t j = 0; j < kLanes; ++j) {
      lanes[j] += static_cast<double>(p[i + j]) * static_cast<double>(q[i + j]);
    }
  }
  double sum = 0.0;
  for (const double lane : lanes) sum += lane;
  for (std::size_t i = whole; i < count; ++i) {
    sum += static_cast<double>(p[i]) * static_cast<double>(q[i]);
  }
  return sum;
}

}  // namespace

double sum_of_squares(std::span<const float> values) {
  return run_kernel<lane_sum<float>>(values.data(), values.data(), values.size());
}

double sum_of_squares(std::span<const double> values) {
  return run_kernel<lane_sum<double>>(values.data(), values.data(), values.size());
}

double sum_of_products(std::span<const float> p, std::span<const float> q) {
  assert(p.size() == q.size());
  return run_kernel<lane_sum<float>>(p.data(), q.data(), p.size());
}

}  // namespace verdel
