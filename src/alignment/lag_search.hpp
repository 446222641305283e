#pragma once

#include <cstddef>
#include <span>

#include "support/stop_token.hpp"

/// The whole-sample delay between two mono signals of one rate. A positive lag means that `a_mono`
/// runs later: a_mono[n + lag] matches b_mono[n], so b_mono must be delayed by that much to line
/// up. Every doubt gives lag 0: silence, short signals, no clear winner, values that are not
/// finite.
namespace verdel::internal {

/// The lag of the ten loudest seconds of b_mono by cross-correlation, searched max_ms to both sides
/// and blind to polarity; 0 unless it beats lag 0 by more than 2 percent. Of equally good lags the
/// most negative one.
///
/// Shapes: both signals have one length. Units: sr in Hz, above 0. Errors: none but Cancelled.
std::ptrdiff_t _find_lag_window(std::span<const double> a_mono, std::span<const double> b_mono,
                                int sr, double max_ms = 200.0, const StopToken& stop = {});

/// The lag of whole signals: _find_lag_window decides the value, and a majority of up to four
/// sections of the signal, each searched by itself, must agree with it. Never 1 or 2 samples either
/// way, and always 0 below two sections of five seconds.
///
/// Shapes: the longer signal's end is ignored. Units: sr in Hz, above 0. Errors: none but
/// Cancelled.
std::ptrdiff_t find_lag(std::span<const double> a_mono, std::span<const double> b_mono, int sr,
                        double max_ms = 200.0, const StopToken& stop = {});

}  // namespace verdel::internal
