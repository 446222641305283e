#include "chain/spline_basis.hpp"

#include <cmath>

namespace verdel::internal {
namespace {

constexpr double kKnotsPerOctave = 8.0;
constexpr double kLinearBelowHz = 60.0;
constexpr double kSlopeWeight = 0.05;  // of the first against the second differences

using Row = Eigen::Index;

Eigen::MatrixXd differences(Row size) {
  Eigen::MatrixXd d = Eigen::MatrixXd::Zero(size - 1, size);
  for (Row i = 0; i + 1 < size; ++i) {
    d(i, i) = -1.0;
    d(i, i + 1) = 1.0;
  }
  return d;
}

}  // namespace

SplineBasis::SplineBasis(std::size_t frame, int sr)
    : hz_(frame / 2 + 1), first_(frame / 2 + 1), values_(frame / 2 + 1) {
  for (std::size_t bin = 0; bin < bins(); ++bin) {
    hz_[bin] = static_cast<double>(bin) * sr / static_cast<double>(frame);
    const double place = kKnotsPerOctave * std::log2(1.0 + hz_[bin] / kLinearBelowHz);
    const double knot = std::floor(place), t = place - knot;
    first_[bin] = static_cast<std::size_t>(knot);
    values_[bin] = {(1 - t) * (1 - t) * (1 - t) / 6, (3 * t * t * t - 6 * t * t + 4) / 6,
                    (-3 * t * t * t + 3 * t * t + 3 * t + 1) / 6, t * t * t / 6};
  }
  size_ = first_.back() + 4;
}

void SplineBasis::project(std::span<const std::complex<double>> weights,
                          Eigen::Ref<Eigen::VectorXcd> out, double factor) const {
  for (std::size_t bin = 0; bin < bins(); ++bin) {
    const auto first = static_cast<Row>(first_[bin]);
    for (Row i = 0; i < 4; ++i) {
      out[first + i] += factor * values_[bin][static_cast<std::size_t>(i)] * weights[bin];
    }
  }
}

void SplineBasis::gram(std::span<const std::complex<double>> weights,
                       Eigen::Ref<Eigen::MatrixXcd> out, double factor) const {
  for (std::size_t bin = 0; bin < bins(); ++bin) {
    const auto first = static_cast<Row>(first_[bin]);
    const auto& values = values_[bin];
    for (std::size_t i = 0; i < 4; ++i) {
      for (std::size_t j = 0; j < 4; ++j) {
        out(first + static_cast<Row>(i), first + static_cast<Row>(j)) +=
            factor * values[i] * values[j] * weights[bin];
      }
    }
  }
}

std::vector<std::complex<double>> SplineBasis::curve(
    const Eigen::Ref<const Eigen::VectorXcd>& c) const {
  std::vector<std::complex<double>> curve(bins());
  for (std::size_t bin = 0; bin < bins(); ++bin) {
    const auto first = static_cast<Row>(first_[bin]);
    for (Row i = 0; i < 4; ++i) {
      curve[bin] += values_[bin][static_cast<std::size_t>(i)] * c[first + i];
    }
  }
  return curve;
}

Eigen::MatrixXd SplineBasis::roughness() const {
  const auto size = static_cast<Row>(size_);
  const Eigen::MatrixXd slope = differences(size);
  const Eigen::MatrixXd bend = differences(size - 1) * slope;
  return bend.transpose() * bend + kSlopeWeight * slope.transpose() * slope;
}

}  // namespace verdel::internal
