#pragma once

#include "chain/effect_blocks.hpp"

namespace verdel::internal {

double dot(const EffectResponse& a, const EffectResponse& b);

/// What is expected of an effect: that it dies away as rooms do.
EffectResponse expected_course(const EffectPlan& plan, int sr);

/// The source's own autocorrelation under the gain, which stands in for the matrix of an effect's
/// equations: solves (P T P + ridge) z = r, P the expected course, T Toeplitz (Chan & Ng 1996).
class EffectPreconditioner {
 public:
  /// `power` is the spectrum of the autocorrelation, at the plan's frame, and is used up; `course`
  /// stays the caller's.
  EffectPreconditioner(const EffectPlan& plan, std::span<std::complex<float>> power,
                       const EffectResponse& course);

  /// What is added to the diagonal of the matrix, under the course.
  double ridge() const;
  EffectResponse solve(const EffectResponse& right) const;

 private:
  struct Room;
  void multiply(const EffectResponse& v, EffectResponse& image, Room& room) const;

  const EffectResponse& course_;
  RealTransform<float> transform_;
  std::vector<float> toeplitz_;  // real, as the autocorrelation is even, [bins]
  double energy_ = 0.0;
};

}  // namespace verdel::internal
