#include "driver/chain_picture.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "chain/chain_figures.hpp"
#include "chain/chain_words.hpp"
#include "driver/plot.hpp"
#include "inputs/path_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr double kWidth = 1200.0, kLeft = 80.0, kRight = 30.0;
constexpr double kInner = kWidth - kLeft - kRight;
constexpr double kStripWidth = kInner - 60.0;  // beside it, its frequency
constexpr double kAxis = 30.0;                 // below a plot, for its labels
constexpr double kCurveHeight = 320.0, kGainHeight = 150.0, kBandHeight = 52.0;
constexpr double kTapHeight = 150.0;
constexpr std::size_t kTapsInRow = 3;

// Told apart by eyes of every kind.
constexpr Ink kColours[] = {{0x0072b2}, {0xd55e00}, {0x009e73}, {0xaa4499}};
constexpr Ink kDoubtful = {0xb0b0b0};
constexpr double kBandOpacity = 0.22, kUnusedOpacity = 0.45;
constexpr double kMostDoubt = 2.0;              // dB; a curve is grey beyond
constexpr double kLeastSwing = 6.0;             // dB that an equaliser's axis shows both ways,
constexpr double kMostSwing = 36.0;             // and the most
constexpr std::size_t kMostGainColumns = 1800;  // of all lines together: the file stays small
constexpr std::size_t kMostColumns = 550;
constexpr double kDeepestDecay = 60.0;  // dB below its beginning

constexpr TextStyle kPlain = {.size = 14.0};
constexpr TextStyle kBig = {
    .size = 22.0, .ink = {0x111111}, .anchor = Anchor::kStart, .bold = true};
constexpr TextStyle kBold = {
    .size = 16.0, .ink = {0x111111}, .anchor = Anchor::kStart, .bold = true};
constexpr std::size_t kLongestLine = 140, kLongestName = 26;  // characters

/// At most so many characters.
std::string cut(std::string_view text, std::size_t most) {
  std::string shown = printable(text);
  if (code_points(shown) <= most) return shown;
  while (code_points(shown) >= most) {
    do {
      shown.pop_back();
    } while (!is_valid_utf8(shown));
  }
  return shown + "\u2026";
}

Ink faint(Ink ink, double opacity) {
  return {ink.rgb, ink.opacity * opacity};
}

struct Legend {
  std::vector<std::string> names;

  void draw(Canvas& canvas, double right, double y) const {
    TextStyle style = kPlain;
    style.anchor = Anchor::kEnd;
    for (std::size_t i = names.size(); i-- > 0;) {
      style.ink = kColours[i];
      canvas.text({right, y}, "\u2014 " + names[i], style);
      right -= 9.0 * static_cast<double>(names[i].size()) + 40.0;
    }
  }
};

Scale swing_of(const EqualiserFigures& equaliser, std::size_t most_steps) {
  double low = -kLeastSwing, high = kLeastSwing;
  for (const ResponseFigures& response : equaliser.responses) {
    for (std::size_t i = 0; i < response.db.size(); ++i) {
      const double doubt = response.uncertainty_db[i];
      if (doubt > kMostDoubt) continue;
      low = std::min(low, response.db[i] - doubt);
      high = std::max(high, response.db[i] + doubt);
    }
  }
  return decibel_scale(std::max(low, -kMostSwing), std::min(high, kMostSwing), most_steps);
}

/// A response with its band, both grey where nobody can know.
void draw_response(Plot& plot, const std::vector<double>& hz, const ResponseFigures& response,
                   Ink ink) {
  const auto is_doubtful = [&](std::size_t i) { return response.uncertainty_db[i] > kMostDoubt; };
  for (std::size_t first = 0; first + 1 < hz.size();) {
    const bool doubtful = is_doubtful(first + 1);
    std::size_t last = first + 1;
    while (last + 1 < hz.size() && is_doubtful(last + 1) == doubtful) ++last;
    std::vector<Point> line, band, lower;
    for (std::size_t i = first; i <= last; ++i) {
      line.push_back({hz[i], response.db[i]});
      band.push_back({hz[i], response.db[i] + response.uncertainty_db[i]});
      lower.push_back({hz[i], response.db[i] - response.uncertainty_db[i]});
    }
    std::ranges::reverse_copy(lower, std::back_inserter(band));
    const Ink drawn = doubtful ? faint(kDoubtful, ink.opacity) : ink;
    plot.area(band, faint(drawn, kBandOpacity));
    plot.line(line, drawn, doubtful ? 1.5 : 2.0);
    first = last;
  }
}

void draw_equaliser(Canvas& canvas, Box box, const EqualiserFigures& equaliser, int sr,
                    double opacity, std::size_t most_steps) {
  const double highest = std::min(20000.0, 0.5 * sr);
  Plot plot(canvas, box, hertz_scale(highest), swing_of(equaliser, most_steps));
  const auto shown = std::ranges::upper_bound(equaliser.hz, highest) - equaliser.hz.begin();
  const std::vector<double> hz(equaliser.hz.begin(), equaliser.hz.begin() + shown);
  Legend legend;
  for (std::size_t i = 0; i < equaliser.responses.size(); ++i) {
    draw_response(plot, hz, equaliser.responses[i], faint(kColours[i], opacity));
    legend.names.push_back(equaliser.responses[i].name);
  }
  if (legend.names.size() > 1) legend.draw(canvas, box.left + box.width, box.top - 8.0);
}

double draw_curve(Canvas& canvas, double y, const CurveFinding& curve,
                  const std::vector<std::string>& taps, int sr) {
  const std::string words = (curve.used ? "" : "Not used \u2013 ") + curve_words(curve, taps);
  canvas.text({kLeft, y}, cut(words, kLongestLine), kPlain);
  if (curve.curves.empty()) return y + 30.0;
  if (curve.used)
    canvas.text({kLeft, y + 20.0}, cut(vote_words(curve, taps), kLongestLine), kPlain);
  const Box box{kLeft, y + 46.0, kInner, kCurveHeight};
  draw_equaliser(canvas, box, equaliser_figures(curve), sr, curve.used ? 1.0 : kUnusedOpacity, 8);
  return box.top + box.height + kAxis;
}

/// A gain's way through a stretch of time: its lowest, highest and mean dB.
struct Column {
  double seconds = 0.0, low = 0.0, high = 0.0, mean = 0.0;
};

std::vector<Column> columns_of(const std::vector<double>& db, double seconds_per_point,
                               std::size_t most) {
  const std::size_t width = (db.size() + most - 1) / most;
  std::vector<Column> columns;
  for (std::size_t first = 0; first < db.size(); first += width) {
    const std::size_t stop = std::min(first + width, db.size());
    Column column{.low = db[first], .high = db[first]};
    for (std::size_t i = first; i < stop; ++i) {
      column.low = std::min(column.low, db[i]);
      column.high = std::max(column.high, db[i]);
      column.mean += db[i] / static_cast<double>(stop - first);
    }
    column.seconds = 0.5 * static_cast<double>(first + stop - 1) * seconds_per_point;
    columns.push_back(column);
  }
  return columns;
}

/// The range that all but some outliers stay in: a gain may run away where nothing sounds.
std::pair<double, double> range_of(const GainFigures& gain) {
  std::vector<double> all;
  for (const auto& channel : gain.db) {
    for (const auto& band : channel) all.insert(all.end(), band.begin(), band.end());
  }
  if (all.empty()) return {-1.0, 1.0};
  std::ranges::sort(all);
  const std::size_t outliers = all.size() / 200;
  return {std::min(all[outliers], -1.0), std::max(all[all.size() - 1 - outliers], 1.0)};
}

void draw_gain_line(Plot& plot, const std::vector<Column>& columns, Ink ink) {
  std::vector<Point> line, band;
  for (const Column& column : columns) {
    line.push_back({column.seconds, column.mean});
    band.push_back({column.seconds, column.high});
  }
  for (std::size_t i = columns.size(); i-- > 0;)
    band.push_back({columns[i].seconds, columns[i].low});
  const auto is_wide = [](const Column& column) { return column.high > column.low; };
  if (std::ranges::any_of(columns, is_wide)) plot.area(band, faint(ink, kBandOpacity));
  plot.line(line, ink, 1.3);
}

std::string hertz_text(double hz) {
  return hz < 1000.0 ? fmt::format("{:g} Hz", hz) : fmt::format("{:.2g} kHz", hz / 1000.0);
}

/// One gain, or one octave of it, over time.
void draw_strip(Canvas& canvas, Box box, const GainFigures& gain, Scale up, std::size_t band,
                std::size_t columns) {
  const auto points = static_cast<double>(gain.db.front()[band].size());
  const bool alone = gain.hz.size() == 1;
  Scale across = time_scale(std::max(points * gain.seconds_per_point, 1e-3), 12);
  if (band > 0) {
    for (Tick& tick : across.ticks) tick.label.clear();
  }
  if (!alone) up.ticks.front().label.clear();  // the next one begins where this one ends
  Plot plot(canvas, box, std::move(across), std::move(up));
  for (std::size_t c = 0; c < gain.db.size(); ++c) {
    draw_gain_line(plot, columns_of(gain.db[c][band], gain.seconds_per_point, columns),
                   kColours[c]);
  }
  if (alone) return;
  canvas.text({box.left + box.width + 10.0, box.top + 0.5 * box.height + 4.0},
              hertz_text(gain.hz[band]), {.size = 12.0});
}

/// One strip, or one above the other for each octave.
double draw_gain(Canvas& canvas, double y, const GainFigures& gain, std::size_t columns) {
  const bool alone = gain.hz.size() == 1;
  canvas.text({kLeft, y}, alone ? "One for all frequencies" : "One for each octave", kPlain);
  Legend{gain.channels}.draw(canvas, kLeft + kStripWidth, y);
  const auto [low, high] = range_of(gain);
  const Scale up = decibel_scale(low, high, alone ? 5 : 3);
  double top = y + 14.0;
  for (std::size_t b = gain.hz.size(); b-- > 0;) {
    const double height = alone ? kGainHeight : kBandHeight - 10.0;
    draw_strip(canvas, {kLeft, top, kStripWidth, height}, gain, up, b, columns);
    top += alone ? kGainHeight : kBandHeight;
  }
  return top + kAxis;
}

double draw_gains(Canvas& canvas, double y, const std::vector<GainFigures>& gains) {
  if (gains.empty()) return y;
  std::size_t lines = 0;
  for (const GainFigures& gain : gains) lines += gain.hz.size() * gain.db.size();
  const std::size_t points = std::min(kMostColumns, kMostGainColumns / lines);
  canvas.text({kLeft, y}, "Its gain over time, beside the slow gain that every render has", kBold);
  y += 28.0;
  for (const GainFigures& gain : gains) y = draw_gain(canvas, y, gain, points) + 24.0;
  return y;
}

void draw_decay(Canvas& canvas, Box box, const TapFilter& filter) {
  if (filter.decay_db.empty()) return;
  std::vector<Point> line;
  for (std::size_t i = 0; i < filter.decay_db.size(); ++i) {
    line.push_back({static_cast<double>(i) * kDecayStepSeconds, filter.decay_db[i]});
  }
  const double top = 20.0 * std::ceil(std::ranges::max(filter.decay_db) / 20.0);
  Plot plot(canvas, box, time_scale(line.back().x + kDecayStepSeconds, 5),
            decibel_scale(top - kDeepestDecay, top, 4));
  plot.line(line, kColours[0], 2.0);
}

void draw_tap(Canvas& canvas, Box box, const TapFilter& filter, const std::string& name, int sr) {
  canvas.text({box.left, box.top - 10.0}, cut(name, kLongestName) + ": " + tap_filter_kind(filter),
              kPlain);
  if (filter.is_effect) {
    draw_decay(canvas, box, filter);
  } else {
    draw_equaliser(canvas, box, equaliser_figures(filter), sr, 1.0, 4);
  }
}

double draw_taps(Canvas& canvas, double y, const std::vector<TapFilter>& filters,
                 const std::vector<std::string>& taps, int sr) {
  if (filters.empty()) return y;
  canvas.text({kLeft, y}, "What single taps went through on their own", kBold);
  constexpr double kCell = (kWidth - kRight) / static_cast<double>(kTapsInRow);
  for (std::size_t i = 0; i < filters.size(); ++i) {
    const Box box{kLeft + static_cast<double>(i % kTapsInRow) * kCell,
                  y + 44.0 + static_cast<double>(i / kTapsInRow) * (kTapHeight + 80.0),
                  kCell - kLeft, kTapHeight};
    draw_tap(canvas, box, filters[i], taps[filters[i].tap], sr);
  }
  const std::size_t rows = (filters.size() + kTapsInRow - 1) / kTapsInRow;
  return y + static_cast<double>(rows) * (kTapHeight + 80.0);
}

/// Draws everything; returns the height that it takes.
double draw(Canvas& canvas, const ChainFinding& finding, const std::vector<std::string>& taps,
            int sr) {
  canvas.text({kLeft, 40.0}, "Your master's EQ", kBig);
  double y = draw_curve(canvas, 68.0, finding.curve, taps, sr) + 34.0;
  std::vector<GainFigures> gains;
  for (const FineGain& gain : finding.gains.used) gains.push_back(gain_figures(gain, sr));
  y = draw_gains(canvas, y, gains);
  return draw_taps(canvas, y, finding.tap_filters.filters, taps, sr);
}

/// Takes everything and keeps nothing, to learn how high a picture gets.
class NoCanvas : public Canvas {
 public:
  void area(std::span<const Point>, Ink) override {}
  void line(std::span<const Point>, Ink, double) override {}
  void text(Point, std::string_view, const TextStyle&) override {}
  std::string bytes() override { return {}; }
};

}  // namespace

std::optional<PictureFormat> picture_format_of(const std::string& file) {
  std::string extension = split_extension(basename(file)).extension;
  std::ranges::transform(extension, extension.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  if (extension == ".svg") return PictureFormat::kSvg;
  if (extension == ".png") return PictureFormat::kPng;
  return std::nullopt;
}

void require_picture_format(const std::string& file, const CommandLine& command_line) {
  const auto format = picture_format_of(file);
  if (!format) {
    command_line.fail("--picture takes a name that ends in .svg or .png, not " + quoted_path(file));
  }
  if (*format == PictureFormat::kPng && !can_draw_png()) {
    command_line.fail(
        "this verdel-chain was built without cairo and draws no PNG: end the name in "
        ".svg");
  }
}

std::string chain_picture(const ChainFinding& finding, const std::vector<std::string>& taps, int sr,
                          PictureFormat format) {
  NoCanvas none;
  const double height = draw(none, finding, taps, sr);
  const auto canvas = format == PictureFormat::kPng
                          ? png_canvas(kWidth, height)
                          : svg_canvas(kWidth, height, "Your master's EQ");
  draw(*canvas, finding, taps, sr);
  return canvas->bytes();
}

}  // namespace verdel::internal
