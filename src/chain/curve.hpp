#pragma once

#include <complex>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "chain/chain_job.hpp"
#include "chain/filter_fit.hpp"
#include "chain/heard_taps.hpp"

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
  double left = 0.0;                 ///< the same as the taps are now heard, curve or not
  double cross_validation = 0.0;     ///< dB
  double against = 0.0;              ///< share of the change on taps that did not go through it
  std::vector<CurveVote> votes;      ///< by tap
  std::vector<std::ptrdiff_t> lags;  ///< by tap, samples it was moved; of use even without a curve
  std::vector<double> hz;            ///< [bins]; empty where nothing could be looked for
  std::vector<ChainCurve> curves;
  std::vector<double> deviation;  ///< standard deviation of the response, [bins]
  ChainFir fir;                   ///< the curves, to be played
};

/// Whether the taps are lined up first or stay where their paths have them.
enum class LagSearch { kSeek, kKeep };

/// Looks for one filter that all taps went through, behind what each goes through on its own. Where
/// it helps, or the lining up alone does, the taps' paths tell how each is moved; else they are as
/// they were.
///
/// Errors: Cancelled; those of memory. Samples that are not finite leave everything as it is.
CurveFinding find_curve(const ChainJob& job, HeardTaps& taps, LagSearch lags = LagSearch::kSeek);

/// Whether the curve is kept off by nothing but the vote of the taps.
bool is_voted_down(const CurveFinding& finding);

}  // namespace verdel::internal
