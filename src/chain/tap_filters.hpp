#pragma once

#include <cstddef>
#include <vector>

#include "chain/curve.hpp"
#include "chain/heard_taps.hpp"

namespace verdel::internal {

/// From one point of a decay to the next.
inline constexpr double kDecayStepSeconds = 0.02;

/// What one tap went through on its own: an equaliser, or the return of an effect, a room or a
/// delay, that stands in the mix and not in the tap.
struct TapFilter {
  std::size_t tap = 0;            ///< its place among the taps
  bool is_effect = false;         ///< else an equaliser
  double cross_validation = 0.0;  ///< dB by which it beats a plain factor on unseen passages
  double fall = 0.0;              ///< dB that it takes off what is left, under a quick gain

  // An equaliser:
  std::vector<double> hz;  ///< [bins]
  std::vector<ChainCurve> curves;
  std::vector<double> deviation;  ///< standard deviation of the first curve, [bins]

  // An effect:
  double seconds = 0.0;  ///< until its energy has fallen by 60 dB, extrapolated
  std::vector<double>
      decay_db;  ///< energy in steps of kDecayStepSeconds from 0 s, of the tap's own
};

struct TapFiltersFinding {
  std::vector<TapFilter> filters;  ///< in the order of the taps, at most one each
  double left_before = 0.0;        ///< dB of the mix, under a quick gain
  double left_after = 0.0;
  std::vector<bool> settled;  ///< by tap: whether another try is not worth it
};

/// How long to look for filters of single taps: for one, new or better, and then for better ones of
/// those that are there; or for all effects, and one equaliser at most: what would be the next
/// one's may be the master's.
enum class TapSearch { kOneTap, kAll };

/// Looks, tap by tap, for what it went through on its own, behind a master filter or none: takes
/// the tap that promises most, if its filter takes a clear part off what is left and holds on
/// passages that it has not seen, and looks again with it in place. The taps' paths and `finding`
/// get what is found; a filter that was there may become a better one. Returns whether anything was
/// found.
///
/// Errors: Cancelled; those of memory.
bool find_tap_filters(const ChainJob& job, HeardTaps& taps, const ChainFir* master,
                      TapSearch search, TapFiltersFinding& finding);

}  // namespace verdel::internal
