#include <fmt/format.h>

#include <cmath>

#include "driver/canvas.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : printable(text)) {
    if (c == '<') {
      out += "&lt;";
    } else if (c == '&') {
      out += "&amp;";
    } else {
      out += c;
    }
  }
  return out;
}

std::string colour(const char* what, Ink ink) {
  std::string text = fmt::format(R"( {}="#{:06x}")", what, ink.rgb);
  if (ink.opacity < 1.0) text += fmt::format(R"( {}-opacity="{:g}")", what, ink.opacity);
  return text;
}

/// A path in tenths of a pixel, every point as its step from the one before: half as long as with
/// places, and the rounding does not add up.
std::string path(std::span<const Point> points) {
  const auto tenths = [](double value) { return std::lround(10.0 * value); };
  const auto number = [](long value, bool first) {
    return fmt::format("{}{:g}", first || value < 0 ? "" : " ", static_cast<double>(value) / 10.0);
  };
  std::string text;
  long x = 0, y = 0;
  for (const Point& point : points) {
    const long dx = tenths(point.x) - x, dy = tenths(point.y) - y;
    text.append(text.empty() ? "M" : "l").append(number(dx, true)).append(number(dy, false));
    x += dx;
    y += dy;
  }
  return text;
}

class SvgCanvas : public Canvas {
 public:
  SvgCanvas(double width, double height, std::string_view title)
      : text_(fmt::format(R"(<svg xmlns="http://www.w3.org/2000/svg" width="{0:g}" height="{1:g}" )"
                          R"(viewBox="0 0 {0:g} {1:g}" role="img" font-family="sans-serif">)"
                          "\n<title>{2}</title>\n"
                          R"(<rect width="{0:g}" height="{1:g}" fill="#ffffff"/>)"
                          "\n",
                          width, height, escaped(title))) {}

  void area(std::span<const Point> corners, Ink ink) override {
    text_ += fmt::format("<path{} d=\"{}z\"/>\n", colour("fill", ink), path(corners));
  }
  void line(std::span<const Point> points, Ink ink, double width) override {
    text_ +=
        fmt::format(R"(<path fill="none"{} stroke-width="{:g}" stroke-linejoin="round" d="{}"/>)"
                    "\n",
                    colour("stroke", ink), width, path(points));
  }
  void text(Point at, std::string_view words, const TextStyle& style) override {
    const char* anchor = style.anchor == Anchor::kStart    ? ""
                         : style.anchor == Anchor::kMiddle ? R"( text-anchor="middle")"
                                                           : R"( text-anchor="end")";
    text_ += fmt::format(R"(<text x="{:.1f}" y="{:.1f}" font-size="{:g}"{}{}{}>{}</text>)"
                         "\n",
                         at.x, at.y, style.size, colour("fill", style.ink), anchor,
                         style.bold ? R"( font-weight="bold")" : "", escaped(words));
  }
  std::string bytes() override { return std::move(text_) + "</svg>\n"; }

 private:
  std::string text_;
};

}  // namespace

std::unique_ptr<Canvas> svg_canvas(double width, double height, std::string_view title) {
  return std::make_unique<SvgCanvas>(width, height, title);
}

}  // namespace verdel::internal
