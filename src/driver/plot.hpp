#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "driver/canvas.hpp"

namespace verdel::internal {

struct Tick {
  double value = 0.0;
  std::string label;
};

/// One axis of a plot.
struct Scale {
  double low = 0.0, high = 1.0;
  bool logarithmic = false;
  std::vector<Tick> ticks = {};
};

/// From 20 Hz on, logarithmic.
Scale hertz_scale(double high);
/// Whole steps of some dB around the range, at most `most_steps` of them but for huge ranges.
Scale decibel_scale(double low, double high, std::size_t most_steps);
/// From 0 s on.
Scale time_scale(double seconds, std::size_t most_steps);

/// A rectangle on a canvas.
struct Box {
  double left = 0.0, top = 0.0, width = 0.0, height = 0.0;
};

/// Axes with their grid and labels, drawn at once, and curves over them. Values beyond an axis are
/// drawn at its end.
class Plot {
 public:
  Plot(Canvas& canvas, Box box, Scale across, Scale up);

  /// Points are values of the two scales.
  void line(std::span<const Point> values, Ink ink, double width);
  /// The area between two curves, the second given from its end.
  void area(std::span<const Point> values, Ink ink);

 private:
  double across(double value) const;
  double up(double value) const;
  std::vector<Point> placed(std::span<const Point> values) const;

  Canvas& canvas_;
  Box box_;
  Scale across_, up_;
};

}  // namespace verdel::internal
