#include "driver/canvas.hpp"

#ifdef VERDEL_CAIRO
#include <cairo.h>

#include <cmath>

#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

struct DestroySurface {
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
struct DestroyPen {
  void operator()(cairo_t* pen) const { cairo_destroy(pen); }
};

cairo_status_t append(void* file, const unsigned char* bytes, unsigned int count) {
  static_cast<std::string*>(file)->append(reinterpret_cast<const char*>(bytes), count);
  return CAIRO_STATUS_SUCCESS;
}

class PngCanvas : public Canvas {
 public:
  PngCanvas(double width, double height)
      : surface_(cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(std::ceil(width)),
                                            static_cast<int>(std::ceil(height)))),
        pen_(cairo_create(surface_.get())) {
    cairo_set_source_rgb(pen_.get(), 1.0, 1.0, 1.0);
    cairo_paint(pen_.get());
    // Grey edges, whatever the screen of this machine: others look at the picture.
    cairo_font_options_t* const options = cairo_font_options_create();
    cairo_font_options_set_antialias(options, CAIRO_ANTIALIAS_GRAY);
    cairo_set_font_options(pen_.get(), options);
    cairo_font_options_destroy(options);
    cairo_set_line_join(pen_.get(), CAIRO_LINE_JOIN_ROUND);
  }

  void area(std::span<const Point> corners, Ink ink) override {
    trace(corners, ink);
    cairo_fill(pen_.get());
  }
  void line(std::span<const Point> points, Ink ink, double width) override {
    trace(points, ink);
    cairo_set_line_width(pen_.get(), width);
    cairo_stroke(pen_.get());
  }
  void text(Point at, std::string_view words, const TextStyle& style) override {
    const std::string shown = printable(words);
    cairo_select_font_face(pen_.get(), "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                           style.bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(pen_.get(), style.size);
    cairo_text_extents_t extents;
    cairo_text_extents(pen_.get(), shown.c_str(), &extents);
    const double before = style.anchor == Anchor::kStart    ? 0.0
                          : style.anchor == Anchor::kMiddle ? 0.5
                                                            : 1.0;
    dip(style.ink);
    cairo_move_to(pen_.get(), at.x - before * extents.x_advance, at.y);
    cairo_show_text(pen_.get(), shown.c_str());
  }
  std::string bytes() override {
    std::string file;
    cairo_status_t status = cairo_status(pen_.get());
    if (status == CAIRO_STATUS_SUCCESS) {
      status = cairo_surface_write_to_png_stream(surface_.get(), append, &file);
    }
    if (status == CAIRO_STATUS_SUCCESS) return file;
    throw RuntimeError(std::string("cannot draw the picture: ") + cairo_status_to_string(status));
  }

 private:
  void dip(Ink ink) {
    const auto part = [&](int shift) { return static_cast<double>(ink.rgb >> shift & 0xff) / 255; };
    cairo_set_source_rgba(pen_.get(), part(16), part(8), part(0), ink.opacity);
  }
  void trace(std::span<const Point> points, Ink ink) {
    dip(ink);
    cairo_new_path(pen_.get());
    for (const Point& point : points) cairo_line_to(pen_.get(), point.x, point.y);
  }

  std::unique_ptr<cairo_surface_t, DestroySurface> surface_;
  std::unique_ptr<cairo_t, DestroyPen> pen_;
};

}  // namespace

std::unique_ptr<Canvas> png_canvas(double width, double height) {
  return std::make_unique<PngCanvas>(width, height);
}

bool can_draw_png() {
  return true;
}

}  // namespace verdel::internal

#else

namespace verdel::internal {

std::unique_ptr<Canvas> png_canvas(double, double) {
  return nullptr;
}

bool can_draw_png() {
  return false;
}

}  // namespace verdel::internal

#endif
