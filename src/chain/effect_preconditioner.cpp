#include "chain/effect_preconditioner.hpp"

#include <algorithm>
#include <bit>
#include <cmath>

#include "signal/instruction_sets.hpp"
#include "signal/sums.hpp"

namespace verdel::internal {
namespace {

constexpr double kCourseSeconds = 0.3;  // in which what is expected of an effect falls by 8.7 dB
constexpr double kRidge = 1e-3;         // of the source's energy
constexpr int kSteps = 16;

VERDEL_INLINE double product_sum(const double* a, const double* b, std::size_t count) {
  return lane_sum(
      count, [ a, b ](std::size_t i) __attribute__((always_inline)) { return a[i] * b[i]; });
}

}  // namespace

double dot(const EffectResponse& a, const EffectResponse& b) {
  return run_kernel<product_sum>(a.data(), b.data(), a.size());
}

EffectResponse expected_course(const EffectPlan& plan, int sr) {
  EffectResponse course(plan.length);
  for (std::size_t i = 0; i < plan.length; ++i) {
    const auto offset = static_cast<double>(i) - static_cast<double>(plan.before);
    course[i] = std::exp(-std::abs(offset) / sr / kCourseSeconds);
  }
  return course;
}

struct EffectPreconditioner::Room {
  Array2D<float> time;
  EffectSpectrum spectrum;

  explicit Room(const RealTransform<float>& transform)
      : time(Array2D<float>::uninitialised(1, transform.length())),
        spectrum(EffectSpectrum::uninitialised(1, transform.bins())) {}
};

EffectPreconditioner::EffectPreconditioner(const EffectPlan& plan,
                                           std::span<std::complex<float>> power,
                                           const EffectResponse& course)
    : course_(course), transform_(std::bit_ceil(2 * plan.length)), toeplitz_(transform_.bins()) {
  auto lags = Array2D<float>::uninitialised(1, plan.frame);
  plan.transform.inverse(power.data(), lags.data());
  Room room(transform_);
  const auto circle = room.time.flat();
  std::ranges::fill(circle, 0.0F);
  for (std::size_t j = 0; j < plan.length; ++j) {
    const float value = lags.data()[j] / static_cast<float>(plan.frame);
    circle[j] = value;
    if (j > 0) circle[circle.size() - j] = value;
  }
  energy_ = static_cast<double>(circle[0]);
  transform_.forward(circle.data(), room.spectrum.data());
  for (std::size_t k = 0; k < toeplitz_.size(); ++k) toeplitz_[k] = room.spectrum.data()[k].real();
}

double EffectPreconditioner::ridge() const {
  return kRidge * energy_;
}

/// Conjugate gradients.
EffectResponse EffectPreconditioner::solve(const EffectResponse& right) const {
  EffectResponse z(right.size(), 0.0), rest = right, direction = right, image(right.size());
  Room room(transform_);
  double power = dot(rest, rest);
  for (int step = 0; step < kSteps && power > 0.0; ++step) {
    multiply(direction, image, room);
    const double along = power / dot(direction, image);
    for (std::size_t i = 0; i < z.size(); ++i) {
      z[i] += along * direction[i];
      rest[i] -= along * image[i];
    }
    const double next = dot(rest, rest);
    for (std::size_t i = 0; i < z.size(); ++i) {
      direction[i] = rest[i] + next / power * direction[i];
    }
    power = next;
  }
  return z;
}

void EffectPreconditioner::multiply(const EffectResponse& v, EffectResponse& image,
                                    Room& room) const {
  const auto time = room.time.flat();
  for (std::size_t i = 0; i < v.size(); ++i) time[i] = static_cast<float>(course_[i] * v[i]);
  std::ranges::fill(time.subspan(v.size()), 0.0F);
  transform_.forward(time.data(), room.spectrum.data());
  for (std::size_t k = 0; k < toeplitz_.size(); ++k) room.spectrum.data()[k] *= toeplitz_[k];
  transform_.inverse(room.spectrum.data(), time.data());
  const double scale = 1.0 / static_cast<double>(time.size()), ridge = this->ridge();
  for (std::size_t i = 0; i < v.size(); ++i) {
    image[i] = course_[i] * scale * static_cast<double>(time[i]) + ridge * v[i];
  }
}

}  // namespace verdel::internal
