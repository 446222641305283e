#pragma once

#include <Eigen/Core>
#include <array>
#include <complex>
#include <cstddef>
#include <span>
#include <vector>

namespace verdel::internal {

/// Cubic B-splines over a frequency axis that is linear below 60 Hz and logarithmic above, eight
/// knots to the octave: what an equaliser may look like, in some seventy numbers. Complex
/// coefficients, so that no phase is taken for granted.
class SplineBasis {
 public:
  /// The bins of a real transform of `frame` samples at `sr` Hz.
  SplineBasis(std::size_t frame, int sr);

  std::size_t bins() const { return first_.size(); }
  /// The bins' frequencies in Hz.
  const std::vector<double>& frequencies() const { return hz_; }
  std::size_t size() const { return size_; }

  /// out[k] += sum over the bins of weights times spline k. weights [bins], out [size].
  void project(std::span<const std::complex<double>> weights, Eigen::Ref<Eigen::VectorXcd> out,
               double factor) const;
  /// out[k][l] += sum over the bins of weights times spline k times spline l. out [size][size].
  void gram(std::span<const std::complex<double>> weights, Eigen::Ref<Eigen::MatrixXcd> out,
            double factor) const;
  /// The curve that the coefficients describe, [bins].
  std::vector<std::complex<double>> curve(const Eigen::Ref<const Eigen::VectorXcd>& c) const;

  /// The four splines that a bin touches: first_of(bin) .. first_of(bin) + 3, and their values.
  std::size_t first_of(std::size_t bin) const { return first_[bin]; }
  const std::array<double, 4>& values_of(std::size_t bin) const { return values_[bin]; }

  /// What a curve's second and, a little, its first differences cost. [size][size].
  Eigen::MatrixXd roughness() const;

 private:
  std::vector<double> hz_;
  std::vector<std::size_t> first_;
  std::vector<std::array<double, 4>> values_;
  std::size_t size_ = 0;
};

}  // namespace verdel::internal
