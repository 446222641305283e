#include "driver/chain_picture.hpp"

#include <gmock/gmock.h>

#include <cmath>
#include <regex>

#include "driver/chain_json.hpp"
#include "driver/plot.hpp"

#ifdef VERDEL_SANITIZED
// What fontconfig has read it keeps to the end of the process, where the leak detector loses it.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig\n";
}
#endif

namespace verdel::internal {
namespace {

using ::testing::HasSubstr;

constexpr int kRate = 44100;
const std::vector<std::string> kTaps = {"<Drums & co>", "B\xff\x01ss"};

/// A shelf of some dB around 300 Hz.
ChainCurve shelf(const std::string& name, double db) {
  ChainCurve curve{name, {}};
  for (std::size_t k = 0; k <= 4096; ++k) {
    const double hz = static_cast<double>(k) * kRate / 8192;
    curve.response.emplace_back(std::pow(10.0, db / 20.0 / (1.0 + std::pow(hz / 300.0, 2.0))));
  }
  return curve;
}

/// A curve that nobody can know above 8 kHz, an hour of bands that breathe, an EQ and a room.
ChainFinding full_finding() {
  ChainFinding finding;
  finding.curve.used = true;
  finding.curve.model = ChainModel::kMidSide;
  finding.curve.left_before = -12.0;
  finding.curve.left_after = -18.0;
  finding.curve.votes = {{1.0, 1.0}, {0.9, 2.0}};
  finding.curve.lags = {0, 0};
  finding.curve.curves = {shelf("mid", 4.0), shelf("side", -9.0)};
  for (std::size_t k = 0; k <= 4096; ++k) {
    finding.curve.hz.push_back(static_cast<double>(k) * kRate / 8192);
    finding.curve.deviation.push_back(finding.curve.hz.back() < 8000.0 ? 0.001 : 0.4);
  }
  FineGain& gain = finding.gains.used.emplace_back();
  gain.in_bands = true;
  gain.frame = 2048;
  gain.hop = 1024;
  auto& factors =
      gain.factors.emplace_back(Array2D<double>::uninitialised(3600UL * kRate / gain.hop, 9));
  for (int b = 0; b < 9; ++b) gain.centres.push_back(80.0 * std::exp2(b));
  for (std::size_t k = 0; k < factors.rows(); ++k) {
    for (std::size_t b = 0; b < 9; ++b) {
      const double swing = std::sin(0.31 * static_cast<double>(k * (b + 1)));
      factors.row(k)[b] = 1.0 + 0.4 * swing * std::sin(1e-4 * static_cast<double>(k));
    }
  }
  auto& filters = finding.tap_filters.filters;
  filters.resize(2);
  filters[0].is_effect = true;
  filters[0].cross_validation = 2.75;
  filters[0].fall = 3.1;
  filters[0].seconds = 0.834;
  for (int i = 0; i < 60; ++i) filters[0].decay_db.push_back(-12.0 - 1.4 * i);
  filters[1].tap = 1;
  filters[1].cross_validation = 12.7;
  filters[1].fall = 20.0;
  filters[1].hz = finding.curve.hz;
  filters[1].curves = {shelf("master", 12.0)};
  filters[1].deviation = finding.curve.deviation;
  return finding;
}

TEST(ChainPicture, IsSmallWholeAndTheSameEachTimeWhateverTapsAreCalled) {
  const ChainFinding finding = full_finding();
  const std::string svg = chain_picture(finding, kTaps, kRate, PictureFormat::kSvg);
  EXPECT_LT(svg.size(), 100000U);
  EXPECT_EQ(svg, chain_picture(finding, kTaps, kRate, PictureFormat::kSvg));
  EXPECT_THAT(svg, HasSubstr(">&lt;Drums &amp; co>: a room of about 0.8 s<"));
  EXPECT_THAT(svg, HasSubstr(">B\\xFF\\x01ss: an EQ of its own<"));
  EXPECT_THAT(svg, HasSubstr("\u2014 side"));
  // Both curves of the master and that of the tap, each grey where nobody can know.
  const std::regex grey("fill=\"none\" stroke=\"#b0b0b0\"");
  EXPECT_EQ(std::distance(std::sregex_iterator(svg.begin(), svg.end(), grey), {}), 3);
  if (!can_draw_png()) GTEST_SKIP() << "built without cairo";
  const std::string png = chain_picture(finding, kTaps, kRate, PictureFormat::kPng);
  EXPECT_EQ(png.substr(0, 20), std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\x04\xb0", 20));
  EXPECT_EQ(png, chain_picture(finding, kTaps, kRate, PictureFormat::kPng));
}

TEST(ChainPicture, SaysWhyThereIsNoCurve) {
  ChainFinding finding;
  finding.curve.why_not = "digital silence";
  const std::string svg = chain_picture(finding, kTaps, kRate, PictureFormat::kSvg);
  EXPECT_THAT(svg, HasSubstr(">Not used \u2013 digital silence<"));
  EXPECT_EQ(svg.find("<path"), std::string::npos);
}

/// Keeps the last line that was drawn.
class LineKeeper : public Canvas {
 public:
  void area(std::span<const Point>, Ink) override {}
  void line(std::span<const Point> points, Ink, double) override {
    last.assign(points.begin(), points.end());
  }
  void text(Point, std::string_view, const TextStyle&) override {}
  std::string bytes() override { return {}; }

  std::vector<Point> last;
};

TEST(ChainPicture, PutsValuesWhereTheAxesSay) {
  LineKeeper canvas;
  Plot plot(canvas, {.left = 100, .top = 50, .width = 300, .height = 120}, hertz_scale(20000.0),
            decibel_scale(-5.0, 6.5, 4));
  plot.line(std::vector<Point>{{20.0, 12.0}, {200.0, 0.0}, {20000.0, -6.0}, {30000.0, -99.0}}, {},
            1.0);
  const std::vector<Point> expected = {{100, 50}, {200, 130}, {400, 170}, {400, 170}};
  ASSERT_EQ(canvas.last.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    EXPECT_NEAR(canvas.last[i].x, expected[i].x, 1e-9);
    EXPECT_NEAR(canvas.last[i].y, expected[i].y, 1e-9);
  }
}

TEST(ChainJson, HasWhatSingleTapsWentThrough) {
  const std::string json = chain_json(full_finding(), kTaps, kRate);
  EXPECT_THAT(json, HasSubstr(R"("tap_filters": [{"name": "<Drums & co>", "kind": "effect", )"
                              R"("cross_validation_db": 2.75, "fall_db": 3.10, "seconds": 0.83, )"
                              R"("decay_step": 0.02, "decay_db": [-12.00, -13.40, )"));
  EXPECT_THAT(json, HasSubstr(R"("kind": "eq", "cross_validation_db": 12.70, "fall_db": 20.00, )"
                              R"("hz": [21.53, 26.92, )"));
  EXPECT_THAT(json, HasSubstr(R"("uncertainty_db": [0.3, )"));
}

}  // namespace
}  // namespace verdel::internal
