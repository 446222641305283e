#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace verdel::internal {

/// The beats that one bar is taken to have.
inline constexpr std::size_t kBeatsPerBar = 4;

/// The pulse of a track, in the frames of its onset curve.
struct Tempo {
  double period = 0.0;          ///< frames from beat to beat
  double confidence = 0.0;      ///< 0 .. 1: the share of the track's quarters that agree
  double first_downbeat = 0.0;  ///< frame of the first downbeat
};

/// sum over i of curve[i] curve[i + lag] for lag = 0 .. max_lag; max_lag is below curve's length.
std::vector<double> autocorrelation(std::span<const double> curve, std::size_t max_lag);

/// Place of the first maximum among ac_values[low .. high - 1], refined to the vertex of the
/// parabola through it and its neighbours, at most half a place away. low < high <= size.
double refined_period(std::span<const double> ac_values, std::size_t low, std::size_t high);

/// Beat period between 60 and 200 beats per minute, beat phase and downbeat of an onset curve of
/// `fps` values per second, centred on its mean. Nothing if the curve is too short or its values
/// too large to be correlated.
std::optional<Tempo> find_tempo(std::span<const double> flux, double fps);

}  // namespace verdel::internal
