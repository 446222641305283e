#include "diagnosis/tap_likeness.hpp"

#include <fmt/format.h>

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>

#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr double kSame = 3e-4;       // share of a tap's power that another does not say
constexpr double kSum = 1e-3;        // the same for all others together
constexpr double kPart = 0.2;        // factor from which a tap belongs to a bus
constexpr double kPartPower = 1e-4;  // share of the bus's power that a part has at least
constexpr double kRidge = 1e-9;

using Row = Eigen::Index;

Eigen::MatrixXd whole_gram(const SpectralSums& sums) {
  const auto size = static_cast<Row>(sums.taps());
  Eigen::MatrixXd whole = Eigen::MatrixXd::Zero(size, size);
  for (std::size_t s = 0; s < sums.segments(); ++s) {
    for (std::size_t b = 0; b < sums.bands().size(); ++b) {
      whole += sums.gram(s, Ear::kLeft, b).topLeftCorner(size, size).real();
      if (sums.ears() > 1) whole += sums.gram(s, Ear::kRight, b).topLeftCorner(size, size).real();
    }
  }
  return whole;
}

/// What the others leave of a tap, and by which factors they say it.
struct Explained {
  double left = 1.0;
  std::vector<std::size_t> parts;
  std::vector<double> factors;
};

Explained explain(const Eigen::MatrixXd& gram, std::size_t tap, const std::vector<bool>& left_out) {
  std::vector<Row> others;
  for (Row t = 0; t < gram.rows(); ++t) {
    const auto index = static_cast<std::size_t>(t);
    if (index != tap && !left_out[index] && gram(t, t) > 0.0) others.push_back(t);
  }
  const auto own = static_cast<Row>(tap);
  Explained explained;
  if (others.size() < 2 || gram(own, own) <= 0.0) return explained;
  const auto count = static_cast<Row>(others.size());
  Eigen::MatrixXd a(count, count);
  Eigen::VectorXd b(count);
  for (Row i = 0; i < count; ++i) {
    for (Row j = 0; j < count; ++j) {
      a(i, j) = gram(others[static_cast<std::size_t>(i)], others[static_cast<std::size_t>(j)]);
    }
    b(i) = gram(others[static_cast<std::size_t>(i)], own);
    a(i, i) *= 1.0 + kRidge;
  }
  const Eigen::VectorXd x = a.llt().solve(b);
  explained.left = 1.0 - b.dot(x) / gram(own, own);
  for (Row i = 0; i < count; ++i) {
    const double power =
        x(i) * x(i) *
        gram(others[static_cast<std::size_t>(i)], others[static_cast<std::size_t>(i)]) /
        gram(own, own);
    if (std::abs(x(i)) < kPart || power < kPartPower) continue;
    explained.parts.push_back(static_cast<std::size_t>(others[static_cast<std::size_t>(i)]));
    explained.factors.push_back(x(i));
  }
  return explained;
}

}  // namespace

Likenesses find_likenesses(const SpectralSums& sums, const std::vector<std::string>& names) {
  Likenesses found{{}, std::vector<bool>(names.size())};
  const Eigen::MatrixXd gram = whole_gram(sums);
  for (Row i = 0; i < gram.rows(); ++i) {
    for (Row j = i + 1; j < gram.rows(); ++j) {
      const auto other = static_cast<std::size_t>(j);
      if (found.left_out[other] || gram(i, i) <= 0.0 || gram(j, j) <= 0.0) continue;
      const double left = 1.0 - gram(i, j) * gram(i, j) / (gram(i, i) * gram(j, j));
      if (left > kSame) continue;
      found.left_out[other] = true;
      const double level = 10.0 * std::log10(gram(j, j) / gram(i, i));
      found.findings.push_back(
          {.kind = "duplicate",
           .taps = {names[static_cast<std::size_t>(i)], names[other]},
           .severity = Severity::kFix,
           .text =
               fmt::format("are the same sound: {:.0f} dB are all that one leaves of the other, at "
                           "{:+.1f} dB. It would be there twice; leave one out.",
                           10.0 * std::log10(std::max(left, 1e-12)), level),
           .where = {},
           .figures = {{"left_db", 10.0 * std::log10(std::max(left, 1e-12))},
                       {"level_db", level}}});
    }
  }
  for (std::size_t t = 0; t < names.size(); ++t) {
    if (found.left_out[t]) continue;
    const Explained explained = explain(gram, t, found.left_out);
    if (explained.left > kSum || explained.parts.size() < 2) continue;
    // A part is the bus less the other parts, but a bus is a sum.
    if (std::ranges::any_of(explained.factors, [](double x) { return x < 0.0; })) continue;
    found.left_out[t] = true;
    Finding finding{.kind = "bus",
                    .taps = {names[t]},
                    .severity = Severity::kFix,
                    .text = {},
                    .where = {},
                    .figures = {}};
    std::string parts;
    for (const std::size_t part : explained.parts) {
      parts.append(parts.empty() ? "" : ", ").append(printable(names[part]));
      finding.taps.push_back(names[part]);
    }
    const double left = 10.0 * std::log10(std::max(explained.left, 1e-12));
    finding.text = fmt::format(
        "is a bus that holds {}: they leave {:.0f} dB of it. Everything in it would be "
        "there twice; leave out the bus, or its parts.",
        parts, left);
    finding.figures = {{"left_db", left}};
    found.findings.push_back(std::move(finding));
  }
  return found;
}

}  // namespace verdel::internal
