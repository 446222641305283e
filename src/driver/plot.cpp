#include "driver/plot.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace verdel::internal {
namespace {

constexpr Ink kGrid = {0xe4e4e4}, kZero = {0x999999};
constexpr TextStyle kLabel = {.size = 12.0, .ink = {0x555555}};

/// The place of a value on an axis, 0 to 1.
double place(const Scale& scale, double value) {
  const double part = scale.logarithmic
                          ? std::log(value / scale.low) / std::log(scale.high / scale.low)
                          : (value - scale.low) / (scale.high - scale.low);
  return std::clamp(part, 0.0, 1.0);
}

std::string clock_text(double seconds, bool in_minutes) {
  if (!in_minutes) return fmt::format("{:g} s", seconds);
  const auto whole = std::lround(seconds);
  return fmt::format("{}:{:02}", whole / 60, whole % 60);
}

}  // namespace

Scale hertz_scale(double high) {
  Scale scale{.low = 20.0, .high = high, .logarithmic = true};
  for (const double hz : {20.0, 50.0, 100.0, 200.0, 500.0, 1e3, 2e3, 5e3, 10e3, 20e3}) {
    if (hz > high) break;
    const bool in_kilohertz = hz >= 1000.0;
    scale.ticks.push_back(
        {hz, fmt::format("{:g}{}", in_kilohertz ? hz / 1000.0 : hz, in_kilohertz ? "k" : "")});
  }
  if (!scale.ticks.empty()) scale.ticks.front().label += " Hz";
  return scale;
}

Scale decibel_scale(double low, double high, std::size_t most_steps) {
  constexpr std::array kSteps = {0.5, 1.0, 2.0, 3.0, 6.0, 12.0, 20.0, 40.0};
  double step = kSteps.back();
  long first = 0, last = 0;
  for (const double candidate : kSteps) {
    step = candidate;
    first = std::lround(std::floor(low / step));
    last = std::lround(std::ceil(high / step));
    if (last - first <= static_cast<long>(most_steps)) break;
  }
  Scale scale{.low = static_cast<double>(first) * step, .high = static_cast<double>(last) * step};
  for (long i = first; i <= last; ++i) {
    const double value = std::abs(static_cast<double>(i) * step);
    scale.ticks.push_back({static_cast<double>(i) * step, fmt::format("{}{:g}",
                                                                      i > 0   ? "+"
                                                                      : i < 0 ? "\u2212"
                                                                              : "",
                                                                      value)});
  }
  scale.ticks.back().label += " dB";
  return scale;
}

Scale time_scale(double seconds, std::size_t most_steps) {
  constexpr std::array kSteps = {0.05, 0.1,  0.2,  0.5,   1.0,   2.0,   5.0,    10.0,
                                 15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 1200.0, 3600.0};
  const auto fits = [&](double candidate) {
    return seconds <= candidate * static_cast<double>(most_steps);
  };
  const auto found = std::ranges::find_if(kSteps, fits);
  const double step = found == kSteps.end() ? seconds / static_cast<double>(most_steps) : *found;
  Scale scale{.low = 0.0, .high = seconds};
  for (std::size_t i = 0; static_cast<double>(i) * step <= seconds; ++i) {
    const double value = static_cast<double>(i) * step;
    scale.ticks.push_back({value, clock_text(value, seconds >= 60.0)});
  }
  return scale;
}

Plot::Plot(Canvas& canvas, Box box, Scale across_axis, Scale up_axis)
    : canvas_(canvas), box_(box), across_(std::move(across_axis)), up_(std::move(up_axis)) {
  const double right = box_.left + box_.width, bottom = box_.top + box_.height;
  TextStyle label = kLabel;
  label.anchor = Anchor::kMiddle;
  for (const Tick& tick : across_.ticks) {
    const double x = across(tick.value);
    canvas_.line(std::array{Point{x, box_.top}, Point{x, bottom}}, kGrid, 1.0);
    canvas_.text({x, bottom + 18.0}, tick.label, label);
  }
  label.anchor = Anchor::kEnd;
  for (const Tick& tick : up_.ticks) {
    const double y = up(tick.value);
    canvas_.line(std::array{Point{box_.left, y}, Point{right, y}},
                 tick.value == 0.0 ? kZero : kGrid, 1.0);
    canvas_.text({box_.left - 8.0, y + 4.0}, tick.label, label);
  }
}

double Plot::across(double value) const {
  return box_.left + place(across_, value) * box_.width;
}

double Plot::up(double value) const {
  return box_.top + (1.0 - place(up_, value)) * box_.height;
}

std::vector<Point> Plot::placed(std::span<const Point> values) const {
  std::vector<Point> points;
  for (const Point& value : values) points.push_back({across(value.x), up(value.y)});
  return points;
}

void Plot::line(std::span<const Point> values, Ink ink, double width) {
  canvas_.line(placed(values), ink, width);
}

void Plot::area(std::span<const Point> values, Ink ink) {
  canvas_.area(placed(values), ink);
}

}  // namespace verdel::internal
