#include "chain/filter_fit.hpp"

#include <Eigen/SparseCholesky>
#include <algorithm>
#include <bit>
#include <cmath>
#include <numbers>
#include <optional>

#include "chain/chain_gain.hpp"
#include "chain/fold_sums.hpp"

namespace verdel::internal {
namespace {

constexpr double kFrameSeconds = 0.186;
constexpr double kFirstRoughness = 30.0;
// From the smoothest on: the first whose cross-validation is near the best one.
constexpr std::array<double, 3> kRoughness = {300.0, 30.0, 3.0};
constexpr double kNearBest = 0.1;  // dB
constexpr double kRidge = 10.0;    // on all in which the channels differ
constexpr double kSafeguard = 1e-9;
constexpr double kModelMargin = 0.3;  // dB that each further function must gain

using Row = Eigen::Index;
using Complex = std::complex<double>;

std::size_t nearest_power_of_two(double samples) {
  return std::size_t{1} << static_cast<unsigned>(std::lround(std::log2(samples)));
}

/// x^H A y.
Complex product(const Eigen::VectorXcd& x, const Eigen::MatrixXcd& a, const Eigen::VectorXcd& y) {
  return x.dot(a * y);
}

/// The weighted residual of a fold under the filter `c`.
double residual_of(const FoldEquations& fold, const Eigen::VectorXcd& c) {
  return fold.target - 2.0 * c.dot(fold.b).real() + product(c, fold.a, c).real();
}

FoldEquations difference(const FoldEquations& whole, const FoldEquations& part) {
  return {whole.a - part.a, whole.b - part.b, whole.target - part.target};
}

/// The blocks of the equations that belong to a model's functions, `size` rows each.
FoldEquations blocks_of(const FoldEquations& all, ChainModel model, Row size) {
  const auto functions = functions_of(model);
  const auto count = static_cast<Row>(functions.size());
  FoldEquations part{.a = Eigen::MatrixXcd(count * size, count * size),
                     .b = Eigen::VectorXcd(count * size)};
  for (Row p = 0; p < count; ++p) {
    const auto from = static_cast<Row>(functions[static_cast<std::size_t>(p)]) * size;
    part.b.segment(p * size, size) = all.b.segment(from, size);
    for (Row q = 0; q < count; ++q) {
      const auto across = static_cast<Row>(functions[static_cast<std::size_t>(q)]) * size;
      part.a.block(p * size, q * size, size, size) = all.a.block(from, across, size, size);
    }
  }
  return part;
}

/// Factors of equations in which a function's splines touch their neighbours alone: sparse.
class Factors {
 public:
  explicit Factors(const Eigen::MatrixXcd& a)
      : factors_(Eigen::SparseMatrix<Complex>(a.sparseView())) {}

  template <class Right>
  auto solve(const Right& right) const {
    return factors_.solve(right);
  }

 private:
  Eigen::SimplicialLLT<Eigen::SparseMatrix<Complex>> factors_;
};

/// Weight 1 in the middle, raised-cosine over an eighth of the length at both ends.
double fade(std::size_t i, std::size_t length) {
  const std::size_t edge = length / 8, from_end = std::min(i, length - 1 - i);
  if (from_end >= edge) return 1.0;
  return 0.5 - 0.5 * std::cos(std::numbers::pi * static_cast<double>(from_end) /
                              static_cast<double>(edge));
}

}  // namespace

std::string_view name_of(ChainModel model) {
  switch (model) {
    case ChainModel::kOneCurve:
      return "one curve";
    case ChainModel::kMidSide:
      return "mid/side";
    case ChainModel::kLeftRight:
      return "left/right";
    case ChainModel::kMatrix:
      return "matrix";
  }
  return {};
}

std::vector<std::size_t> functions_of(ChainModel model) {
  switch (model) {
    case ChainModel::kOneCurve:
      return {0};
    case ChainModel::kMidSide:
      return {0, 2};
    case ChainModel::kLeftRight:
      return {0, 1};
    case ChainModel::kMatrix:
      return {0, 1, 2, 3};
  }
  return {};
}

FoldEquations NormalEquations::all() const {
  FoldEquations sum = folds.front();
  for (std::size_t k = 1; k < folds.size(); ++k) {
    sum.a += folds[k].a;
    sum.b += folds[k].b;
    sum.target += folds[k].target;
  }
  return sum;
}

FilterFit::FilterFit(const ChainJob& job, HeardView x) : FilterFit(job, x, {}) {}

FilterFit::FilterFit(const ChainJob& job, HeardView x, const FitAround& around)
    : job_(job),
      around_(around),
      frame_(nearest_power_of_two(kFrameSeconds * job.sr)),
      hop_(frame_ / 2),
      basis_(frame_, job.sr),
      rough_(basis_.roughness()),
      roughness_(kFirstRoughness),
      c_(Eigen::VectorXcd::Zero(static_cast<Row>(functions() * basis_.size()))) {
  c_.head(static_cast<Row>(basis_.size())).setOnes();
  build();
  heard_ = Heard::copy_of(x);
  if (around_.gain != nullptr) add_others();
}

void FilterFit::build() {
  const auto size = static_cast<Row>(basis_.size());
  const std::size_t channels = job_.mix.rows(), bins = basis_.bins();
  std::vector<std::vector<Complex>> curves;
  for (std::size_t f = 0; f < functions(); ++f) {
    curves.push_back(basis_.curve(c_.segment(static_cast<Row>(f) * size, size)));
  }
  responses_.assign(channels * channels, std::vector<Complex>(bins));
  for (std::size_t c = 0; c < channels; ++c) {
    const double sign = c == 0 ? 1.0 : -1.0;
    for (std::size_t k = 0; k < bins; ++k) {
      responses_[c * channels + c][k] = curves[0][k];
      if (channels < 2) continue;
      responses_[c * channels + c][k] += sign * curves[1][k];
      responses_[c * channels + 1 - c][k] = curves[2][k] + sign * curves[3][k];
    }
  }
  fir_ = {.channels = channels, .length = frame_, .centre = hop_, .responses = {}};
  const RealTransform<double> transform(frame_);
  auto spectrum = Array2D<Complex>::uninitialised(1, bins);
  auto time = Array2D<double>::uninitialised(1, frame_);
  for (const auto& response : responses_) {
    std::ranges::copy(response, spectrum.data());
    transform.inverse(spectrum.data(), time.data());
    std::vector<double> centred(frame_);
    for (std::size_t i = 0; i < frame_; ++i) {
      centred[(i + hop_) % frame_] = time.data()[i] / static_cast<double>(frame_);
    }
    for (std::size_t i = 0; i < frame_; ++i) centred[i] *= fade(i, frame_);
    fir_.responses.push_back(std::move(centred));
  }
}

NormalEquations FilterFit::equations(HeardView x, bool first, bool rough) const {
  std::optional<GainCurve> own;
  if (around_.gain == nullptr) own.emplace(heard(), kFittingGain, job_);
  const GainCurve& gain = own ? *own : *around_.gain;
  const FoldSums sums =
      sum_folds({.x = x, .y = heard(), .gain = gain, .first = first, .rough = rough}, frame_, job_);
  NormalEquations result;
  result.folds.resize(kFolds);
  run_indexed(job_.pool, kFolds, [&](std::size_t k) { result.folds[k] = fold_of(sums, k); });
  return result;
}

FoldEquations FilterFit::fold_of(const FoldSums& sums, std::size_t k) const {
  const auto size = static_cast<Row>(basis_.size());
  const std::size_t count = functions();
  FoldEquations fold{.a = Eigen::MatrixXcd::Zero(c_.size(), c_.size()),
                     .b = Eigen::VectorXcd::Zero(c_.size())};
  for (std::size_t c = 0; c < job_.mix.rows(); ++c) {
    const ChannelFold& sum = sums.of(c, k);
    fold.target += sum.target;
    // Function p takes its signal from source p / 2 (own, other) with this sign.
    const auto sign = [c](std::size_t p) { return p % 2 == 1 && c == 1 ? -1.0 : 1.0; };
    for (std::size_t p = 0; p < count; ++p) {
      basis_.project(sum.with_target[p / 2], fold.b.segment(static_cast<Row>(p) * size, size),
                     sign(p));
      for (std::size_t q = 0; q < count; ++q) {
        basis_.gram(
            sum.between[p / 2][q / 2],
            fold.a.block(static_cast<Row>(p) * size, static_cast<Row>(q) * size, size, size),
            sign(p) * sign(q));
      }
    }
  }
  // From the rest back to the target of the whole filter.
  const Eigen::VectorXcd explained = fold.a * c_;
  fold.target += 2.0 * c_.dot(fold.b).real() + c_.dot(explained).real();
  fold.b += explained;
  return fold;
}

Eigen::MatrixXcd FilterFit::penalty(ChainModel model, double roughness) const {
  const auto size = static_cast<Row>(basis_.size());
  const auto count = static_cast<Row>(functions_of(model).size());
  Eigen::MatrixXcd r = kSafeguard * Eigen::MatrixXcd::Identity(count * size, count * size);
  for (Row p = 0; p < count; ++p) {
    r.block(p * size, p * size, size, size) += roughness * rough_;
    if (p > 0) r.block(p * size, p * size, size, size).diagonal().array() += kRidge;
  }
  return r;
}

Eigen::VectorXcd FilterFit::solve(const FoldEquations& equations, ChainModel model,
                                  double roughness) const {
  const auto size = static_cast<Row>(basis_.size());
  const FoldEquations part = blocks_of(equations, model, size);
  const Eigen::VectorXcd found = Factors(part.a + penalty(model, roughness)).solve(part.b);
  Eigen::VectorXcd c = Eigen::VectorXcd::Zero(equations.b.size());
  Row at = 0;
  for (const std::size_t function : functions_of(model)) {
    c.segment(static_cast<Row>(function) * size, size) = found.segment(at, size);
    at += size;
  }
  return c;
}

double FilterFit::validate(const NormalEquations& equations, ChainModel model,
                           double roughness) const {
  const FoldEquations all = equations.all();
  std::vector<double> residuals(kFolds, 0.0);
  run_indexed(job_.pool, kFolds, [&](std::size_t k) {
    job_.stop.check();
    const FoldEquations& fold = equations.folds[k];
    if (fold.target > 0.0)
      residuals[k] = residual_of(fold, solve(difference(all, fold), model, roughness));
  });
  double sum = 0.0;
  for (const double residual : residuals) sum += residual;
  return sum;
}

void FilterFit::take(const FoldEquations& equations, HeardView x) {
  c_ = solve(equations, model_, roughness_);
  build();
  play_to_measure(x, fir_, job_, heard_);
  if (around_.gain != nullptr) {
    add_others();
    return;
  }
  // The level is the gain's affair.
  const double level = std::sqrt(energy_of(x, job_) / std::max(energy_of(heard(), job_), 1e-30));
  c_ *= level;
  for (auto& response : responses_) {
    for (Complex& value : response) value *= level;
  }
  for (auto& response : fir_.responses) {
    for (double& value : response) value *= level;
  }
  for_each_part(job_, [&](const ChannelPart& part) {
    const auto row = heard_.row(part.channel).subspan(part.span.first, part.span.length());
    for (float& sample : row) sample *= static_cast<float>(level);
  });
}

void FilterFit::add_others() {
  for_each_part(job_, [&](const ChannelPart& part) {
    const auto row = heard_.row(part.channel);
    const auto others = around_.others.row(part.channel);
    for (std::size_t i = part.span.first; i < part.span.stop; ++i) row[i] += others[i];
  });
}

void FilterFit::step(HeardView x) {
  take(equations(x).all(), x);
}

void FilterFit::find_first(HeardView x) {
  take(equations(x, true, true).all(), x);
  take(equations(x, false, true).all(), x);
}

void FilterFit::refine(HeardView x) {
  for (int round = 0; round < 2; ++round) {
    const NormalEquations normal = equations(x);
    choose(normal);
    take(normal.all(), x);
    take(equations(x).all(), x);
    if (model_ == ChainModel::kOneCurve) break;
  }
}

void FilterFit::choose(const NormalEquations& equations) {
  double best = 0.0;
  const ChainModel* chosen = nullptr;
  for (const ChainModel& model : kChainModels) {
    if (functions() == 1 && model != ChainModel::kOneCurve) break;
    std::array<double, kRoughness.size()> left{};
    for (std::size_t i = 0; i < left.size(); ++i) {
      left[i] = validate(equations, model, kRoughness[i]);
    }
    const double least = *std::ranges::min_element(left);
    const auto smoothest = static_cast<std::size_t>(
        std::ranges::find_if(left, [&](double l) { return energy_db(l / least) <= kNearBest; }) -
        left.begin());
    if (chosen != nullptr) {
      const auto more = static_cast<std::ptrdiff_t>(functions_of(model).size()) -
                        static_cast<std::ptrdiff_t>(functions_of(*chosen).size());
      const double margin = kModelMargin * static_cast<double>(std::max<std::ptrdiff_t>(more, 1));
      if (energy_db(best / left[smoothest]) <= margin) continue;
    }
    chosen = &model;
    best = left[smoothest];
    roughness_ = kRoughness[smoothest];
  }
  model_ = *chosen;
}

double FilterFit::cross_validate(HeardView x) {
  const NormalEquations normal = equations(x);
  const FoldEquations all = normal.all();
  Eigen::VectorXcd one = Eigen::VectorXcd::Zero(c_.size());
  one.head(static_cast<Row>(basis_.size())).setOnes();
  double plain = 0.0;
  for (const FoldEquations& fold : normal.folds) {
    const FoldEquations others = difference(all, fold);
    const double factor =
        one.dot(others.b).real() / std::max(product(one, others.a, one).real(), 1e-30);
    plain += residual_of(fold, factor * one);
  }
  const Eigen::MatrixXcd a =
      blocks_of(all, model_, static_cast<Row>(basis_.size())).a + penalty(model_, roughness_);
  const Eigen::MatrixXcd inverse = Factors(a).solve(Eigen::MatrixXcd::Identity(a.rows(), a.cols()));
  deviation_.assign(basis_.bins(), 0.0);
  for (std::size_t bin = 0; bin < basis_.bins(); ++bin) {
    const auto first = static_cast<Row>(basis_.first_of(bin));
    const Eigen::Map<const Eigen::Vector4d> values(basis_.values_of(bin).data());
    const Complex variance =
        values.cast<Complex>().dot(inverse.block(first, first, 4, 4) * values.cast<Complex>());
    deviation_[bin] = std::sqrt(std::max(variance.real(), 0.0));
  }
  return energy_db(plain / validate(normal, model_, roughness_));
}

}  // namespace verdel::internal
