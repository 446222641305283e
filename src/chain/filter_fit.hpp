#pragma once

#include <Eigen/Core>
#include <array>
#include <complex>
#include <cstddef>
#include <string_view>
#include <vector>

#include "chain/chain_gain.hpp"
#include "chain/chain_job.hpp"
#include "chain/fir_player.hpp"
#include "chain/fold_sums.hpp"
#include "chain/spline_basis.hpp"

namespace verdel::internal {

/// What a master chain may do to two channels, from the plainest on. A function is one curve: of a
/// channel onto itself, the same with a minus on the right, of the other channel, the same with a
/// minus on the right.
enum class ChainModel { kOneCurve, kMidSide, kLeftRight, kMatrix };

inline constexpr std::array<ChainModel, 4> kChainModels = {
    ChainModel::kOneCurve, ChainModel::kMidSide, ChainModel::kLeftRight, ChainModel::kMatrix};

std::string_view name_of(ChainModel model);
/// The functions that a model is made of, by their place in the order above.
std::vector<std::size_t> functions_of(ChainModel model);

/// Sums over the frames of one cross-validation fold: the normal equations of all functions, and
/// the weighted energy of the target.
struct FoldEquations {
  Eigen::MatrixXcd a;
  Eigen::VectorXcd b;
  double target = 0.0;
};

/// The normal equations of one step, fold by fold.
struct NormalEquations {
  std::vector<FoldEquations> folds;
  FoldEquations all() const;
};

/// What a filter of one tap is fitted in: the rest of what is heard, and a gain that is held.
struct FitAround {
  HeardView others;
  const GainCurve* gain = nullptr;
};

/// Penalised least squares of mix = gain(t) * (H * x), x the sum of the taps: gain and filter in
/// turn. The filter of a step is fitted to what the one before leaves, in the time domain, so that
/// short frames do not bound it; cells with much left count little (an intruder, a clip).
class FilterFit {
 public:
  /// No filter yet: `x` [channels][frames], the sum of the taps, is heard as it is.
  FilterFit(const ChainJob& job, HeardView x);
  /// The filter of one tap `x`, whose level is free, with all else as it is.
  FilterFit(const ChainJob& job, HeardView x, const FitAround& around);

  /// Two steps that find a first filter, good enough to line up single taps: the gain under the
  /// filter so far, then the filter, weighed by the mix at first and then by what is left.
  void find_first(HeardView x);
  /// Two more steps; the first chooses model and roughness by cross-validation. A model of more
  /// than one curve is chosen twice.
  void refine(HeardView x);
  /// One step more with the model so far.
  void step(HeardView x);

  /// dB by which the filter of the other folds beats a plain factor on each, and the filter's
  /// standard deviation, from the equations of one more step.
  double cross_validate(HeardView x);

  /// All that is heard, at the level of x where all of it is filtered, [channels][frames].
  HeardView heard() const { return heard_.view(); }
  ChainModel model() const { return model_; }
  const ChainFir& fir() const { return fir_; }
  const SplineBasis& basis() const { return basis_; }
  /// [channels][channels] responses over the bins.
  const std::vector<std::vector<std::complex<double>>>& responses() const { return responses_; }
  /// Standard deviation of the first function, [bins].
  const std::vector<double>& deviation() const { return deviation_; }

  /// The equations of one step around the filter so far.
  NormalEquations equations(HeardView x, bool first = false, bool rough = false) const;

 private:
  void choose(const NormalEquations& equations);
  std::size_t functions() const { return job_.mix.rows() == 2 ? 4 : 1; }
  Eigen::MatrixXcd penalty(ChainModel model, double roughness) const;
  Eigen::VectorXcd solve(const FoldEquations& equations, ChainModel model, double roughness) const;
  double validate(const NormalEquations& equations, ChainModel model, double roughness) const;
  FoldEquations fold_of(const FoldSums& sums, std::size_t k) const;
  void take(const FoldEquations& equations, HeardView x);
  void add_others();
  void build();

  const ChainJob& job_;
  FitAround around_;
  std::size_t frame_, hop_;
  SplineBasis basis_;
  Eigen::MatrixXd rough_;
  ChainModel model_ = ChainModel::kOneCurve;
  double roughness_;
  Eigen::VectorXcd c_;
  ChainFir fir_;
  Heard heard_;
  std::vector<std::vector<std::complex<double>>> responses_;
  std::vector<double> deviation_;
};

}  // namespace verdel::internal
