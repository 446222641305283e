#pragma once

#include <complex>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "chain/chain_job.hpp"
#include "chain/filter_fit.hpp"

namespace verdel::internal {

/// What a tap says of the curve: +1 it went through it, -1 it did not; absent where the curve
/// changes nothing audible in it.
struct CurveVote {
  std::optional<double> vote;
  double change = 0.0;  ///< energy of what the curve changes in the tap
};

/// One curve of the master, as a complex factor per bin.
struct ChainCurve {
  std::string name;                            ///< "master", "mid", "left", ...
  std::vector<std::complex<double>> response;  ///< [bins]
};

/// The master's EQ as it was found, whether or not it is used.
struct CurveFinding {
  bool used = false;
  std::string why_not;  ///< for an engineer; empty if it is used
  ChainModel model = ChainModel::kOneCurve;
  double left_before = 0.0;          ///< dB of the mix, under the engine's gain
  double left_after = 0.0;           ///< the same through the curve
  double cross_validation = 0.0;     ///< dB
  double against = 0.0;              ///< share of the change on taps that did not go through it
  std::vector<CurveVote> votes;      ///< by tap
  std::vector<std::ptrdiff_t> lags;  ///< by tap, samples it was moved; of use even without a curve
  std::vector<double> hz;            ///< [bins]; empty where nothing could be looked for
  std::vector<ChainCurve> curves;
  std::vector<double> deviation;  ///< standard deviation of the response, [bins]
};

/// Looks for one filter that all taps went through. If it helps, `taps` are what is heard through
/// it; if only the lining up helps they are lined up; else they are as they were. Every tap has the
/// mix's shape.
///
/// Errors: Cancelled; those of memory. Samples that are not finite leave everything as it is.
CurveFinding find_curve(const ChainJob& job, StemMap& taps);

}  // namespace verdel::internal
