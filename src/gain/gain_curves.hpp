#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "support/stop_token.hpp"

/// Gain curves: one plain factor per sample, measured on a pair of signals and smoothed.
namespace verdel::internal {

/// How a gain curve is measured and smoothed.
struct GainCurveSettings {
  std::size_t gw = 1;          ///< measurement window in samples, at least 1
  std::size_t sw = 0;          ///< moving average on the curve in samples; 0 for none
  double sr = 0.0;             ///< Hz
  double attack_ms = 0.0;      ///< with release_ms: ballistics instead of the moving average,
  double release_ms = 0.0;     ///< if both are above 0
  double lookahead_ms = -1.0;  ///< of the ballistics; below 0 for the attack time
};

/// The gain that maps `bt` onto `bm` with the least squared error within gw samples around each
/// sample, held to 0.02 .. 50 and smoothed; 1 where bt is silent.
///
/// Shapes: bm, bt and `gain`, which may be bt itself, have one length. Errors: none; Cancelled by
/// `stop`.
void ls_gain(std::span<const double> bm, std::span<const double> bt,
             const GainCurveSettings& settings, std::span<double> gain, const StopToken& stop = {});

/// Smooths a raw curve into `gain`, of its length: by ballistics, else by the moving average, else
/// not at all.
void finish_gain(std::vector<double> g, const GainCurveSettings& settings, std::span<double> gain,
                 const StopToken& stop = {});

/// A one-pole smoother with attack and release, run in dB on the geometric means of blocks of a
/// quarter of a millisecond and interpolated back to samples. Each block's value stands at the
/// block's first sample. `lookahead_ms` is how far the filter sees ahead: absent for the attack
/// time, 0 or below for none. Gains below 1e-12 count as 1e-12.
///
/// The programs smooth by the moving average alone: they set neither attack nor release, so none of
/// their runs comes here.
std::vector<double> ballistic_smooth(std::vector<double> g, double sr, double attack_ms,
                                     double release_ms,
                                     std::optional<double> lookahead_ms = std::nullopt,
                                     const StopToken& stop = {});

}  // namespace verdel::internal
