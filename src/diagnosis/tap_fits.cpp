#include "diagnosis/tap_fits.hpp"

#include <Eigen/Cholesky>
#include <algorithm>

namespace verdel::internal {
namespace {

constexpr double kAudible = 1e-6;  // of the loudest tap in the cell, that a tap must have to count
constexpr double kSilent = 1e-9;   // power of a cell's value, below which nothing is heard at all
constexpr double kRidge = 1e-8;    // of a tap's own power

}  // namespace

TapFits::TapFits(const SpectralSums& sums, Ear ear, const std::vector<bool>& left_out)
    : segments_(sums.segments()),
      bands_(sums.bands().size()),
      factors_(sums.taps() * segments_ * bands_),
      rests_(segments_ * bands_) {
  for (std::size_t s = 0; s < segments_; ++s) {
    for (std::size_t b = 0; b < bands_; ++b) fit(sums, ear, left_out, s, b);
  }
}

void TapFits::fit(const SpectralSums& sums, Ear ear, const std::vector<bool>& left_out,
                  std::size_t segment, std::size_t band) {
  using Row = Eigen::Index;
  const Eigen::MatrixXcd& gram = sums.gram(segment, ear, band);
  const auto mix = static_cast<Row>(sums.taps());
  Rest& rest = rests_[segment * bands_ + band];
  rest.mix = rest.left = gram(mix, mix).real();
  double loudest = 0.0;
  for (Row t = 0; t < mix; ++t) loudest = std::max(loudest, gram(t, t).real());
  const double floor = std::max(kAudible * loudest, kSilent * sums.samples(segment, band));
  std::vector<Row> active;
  for (Row t = 0; t < mix; ++t) {
    if (!left_out[static_cast<std::size_t>(t)] && gram(t, t).real() > floor) active.push_back(t);
  }
  const auto count = static_cast<Row>(active.size());
  const double freedom = sums.samples(segment, band) - static_cast<double>(count);
  if (count == 0 || freedom < 4.0) return;
  Eigen::MatrixXcd a(count, count);
  Eigen::VectorXcd b(count);
  for (Row i = 0; i < count; ++i) {
    for (Row j = 0; j < count; ++j)
      a(i, j) = gram(active[static_cast<std::size_t>(i)], active[static_cast<std::size_t>(j)]);
    b(i) = gram(active[static_cast<std::size_t>(i)], mix);
    a(i, i) *= 1.0 + kRidge;
  }
  const Eigen::LLT<Eigen::MatrixXcd> factors(a);
  if (factors.info() != Eigen::Success) return;
  const Eigen::VectorXcd x = factors.solve(b);
  const Eigen::MatrixXcd inverse = factors.solve(Eigen::MatrixXcd::Identity(count, count));
  rest.left = std::max(rest.mix - b.dot(x).real(), 0.0);
  const double noise = rest.left / freedom + 1e-12 * rest.mix;
  for (Row i = 0; i < count; ++i) {
    const auto tap = static_cast<std::size_t>(active[static_cast<std::size_t>(i)]);
    factors_[(tap * segments_ + segment) * bands_ + band] = {
        .factor = x(i),
        .variance = std::max(noise * inverse(i, i).real() * 0.5, 1e-12),
        .power =
            gram(active[static_cast<std::size_t>(i)], active[static_cast<std::size_t>(i)]).real(),
        .known = true};
  }
}

}  // namespace verdel::internal
