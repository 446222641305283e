#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace verdel::internal {

/// Picture coordinates: from the upper left corner, one to a pixel.
struct Point {
  double x = 0.0, y = 0.0;
};

struct Ink {
  std::uint32_t rgb = 0;  ///< 0xRRGGBB
  double opacity = 1.0;
};

enum class Anchor { kStart, kMiddle, kEnd };

struct TextStyle {
  double size = 13.0;  ///< pixels
  Ink ink = {0x333333};
  Anchor anchor = Anchor::kStart;  ///< where in the text its point is
  bool bold = false;
};

/// Something to draw on, white at first; it becomes a file's bytes, the same for the same calls.
class Canvas {
 public:
  virtual ~Canvas() = default;

  virtual void area(std::span<const Point> corners, Ink ink) = 0;
  virtual void line(std::span<const Point> points, Ink ink, double width) = 0;
  /// One line of text on its baseline; what disturbs a line is escaped.
  virtual void text(Point at, std::string_view words, const TextStyle& style) = 0;
  /// The whole file; the last call. Throws RuntimeError if it cannot be made.
  virtual std::string bytes() = 0;
};

/// `title` is for readers who do not see the picture.
std::unique_ptr<Canvas> svg_canvas(double width, double height, std::string_view title);

/// Null where VERDEL was built without cairo.
std::unique_ptr<Canvas> png_canvas(double width, double height);
bool can_draw_png();

}  // namespace verdel::internal
