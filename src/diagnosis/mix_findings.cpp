#include "diagnosis/mix_findings.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <optional>

#include "diagnosis/tap_profile.hpp"

namespace verdel::internal {
namespace {

constexpr double kHardlyThere = 0.1;            // strength of a tap that the mix does not hold
constexpr double kLeastFraction = 0.1;          // samples
constexpr double kSureBy = 5.0;                 // standard deviations
constexpr double kStraight = 0.97;              // likeness of a tap that went through no filter
constexpr double kBend = 0.985, kBendDb = 3.5;  // of one that did: phases and levels together
constexpr double kCurveDb = 14.0;               // or levels alone
constexpr double kSureBand = 0.12;              // deviation of a band whose level says something
constexpr std::size_t kFewestBands = 4;
constexpr std::ptrdiff_t kFewestTaps =
    3;  // that tell the level and the curve of one from the others'
constexpr double kShortestSeconds = 5.0;  // of a song whose late taps are found
constexpr double kRideDb = 3.5, kLevelDb = 4.0;
constexpr std::size_t kFewestLevels = 5;
constexpr double kUnexplained = 0.33;   // share of a band that no tap explains
constexpr double kMissingShare = 2e-3;  // of the mix's power
constexpr double kSwappedStrength = 0.3;
constexpr double kMiddleFits = 0.8;

double db(double power) {
  return power > 0.0 ? 10.0 * std::log10(power) : -999.0;
}

struct Profiles {
  std::vector<TapProfile> both, left, right, side;
};

class Judge {
 public:
  Judge(const Placing& placing, const std::vector<std::string>& names,
        const std::vector<bool>& left_out, const std::vector<std::ptrdiff_t>& moves)
      : placing_(placing), sums_(placing.sums), names_(names), left_out_(left_out), moves_(moves) {
    fits_.emplace_back(sums_, Ear::kLeft, left_out);
    profiles_.left = tap_profiles(sums_, {&fits_[0]});
    if (!is_stereo()) {
      profiles_.both = profiles_.left;
      return;
    }
    for (const Ear ear : {Ear::kRight, Ear::kSide, Ear::kMid})
      fits_.emplace_back(sums_, ear, left_out);
    profiles_.right = tap_profiles(sums_, {&fits_[1]});
    profiles_.side = tap_profiles(sums_, {&fits_[2]});
    // Where the master treats middle and sides apart, left and right go with nothing that is
    // simple.
    middle_ = 2.0 * (left_by(fits_[2]) + left_by(fits_[3])) <
              kMiddleFits * (left_by(fits_[0]) + left_by(fits_[1]));
    profiles_.both =
        middle_ ? tap_profiles(sums_, {&fits_[3]}) : tap_profiles(sums_, {&fits_[0], &fits_[1]});
  }

  std::vector<Finding> run() {
    for (std::size_t t = 0; t < names_.size(); ++t) {
      if (!left_out_[t]) judge(t);
    }
    // Where something is missing, the others' factors bend towards it: what is finer has to wait.
    if (find_missing()) std::erase_if(findings_, is_fine);
    return std::move(findings_);
  }

 private:
  static bool is_fine(const Finding& finding) {
    return finding.kind == "curve" || finding.kind == "fraction" ||
           (finding.kind == "ride" && finding.severity == Severity::kLook);
  }

  bool is_stereo() const { return sums_.ears() > 1; }

  static double left_by(const TapFits& fits) {
    double left = 0.0;
    for (std::size_t s = 0; s < fits.segments(); ++s) {
      for (std::size_t b = 0; b < fits.bands(); ++b) left += fits.rest(s, b).left;
    }
    return left;
  }

  Finding& add(const char* kind, std::size_t tap, Severity severity, std::string text) {
    findings_.push_back({.kind = kind,
                         .taps = {names_[tap]},
                         .severity = severity,
                         .text = std::move(text),
                         .where = {},
                         .figures = {}});
    return findings_.back();
  }

  void judge(std::size_t t) {
    const Place& place = placing_.places[t];
    if (place.drift) return tell_drift(t, *place.drift);
    const TapProfile& both = profiles_.both[t];
    if (!both.known) return;
    const bool one_side = judge_polarity(t);
    const bool swapped = !one_side && judge_swapped(t);
    if (one_side || swapped) return;
    if (!place.found || (both.strength < kHardlyThere && both.deviation < 0.5 * kHardlyThere)) {
      add("stranger", t, Severity::kFix,
          fmt::format(
              "is not in the mix: {:.0f} % of its level at most, at any lag up to {:.0f} s. Is it "
              "from this session, this version, this take?",
              100.0 * both.strength, kWidestLagSeconds))
          .figures = {{"strength", both.strength}};
      return;
    }
    // Of two that differ nobody knows which one is right.
    const bool measured = std::ranges::count(left_out_, false) >= kFewestTaps;
    const bool curved = measured && judge_curve(t);
    judge_lag(t, curved || !measured);
    if (measured) judge_ride(t);
  }

  /// Whether one side, or both, are turned over so that nothing else can be said.
  bool judge_polarity(std::size_t t) {
    const auto tell = [&](const char* what) {
      add("polarity", t, Severity::kFix,
          fmt::format("{} against the mix (likeness {:.2f}). Turn it over, or bounce it through "
                      "the device that "
                      "turns it over in the mix.",
                      what, std::max({profiles_.both[t].likeness, profiles_.left[t].likeness})));
    };
    if (profiles_.both[t].inverted && profiles_.both[t].likeness > kClear) {
      tell("is turned over");
      return false;
    }
    if (!is_stereo()) return false;
    const TapProfile &left = profiles_.left[t], &right = profiles_.right[t];
    const auto turned = [](const TapProfile& one, const TapProfile& other) {
      return one.known && other.known && one.inverted && !other.inverted && one.likeness > kClear &&
             other.likeness > kClear && one.strength > kSwappedStrength &&
             other.strength > kSwappedStrength;
    };
    if (turned(left, right)) tell("has its left side turned over");
    if (turned(right, left)) tell("has its right side turned over");
    return turned(left, right) || turned(right, left);
  }

  bool judge_swapped(std::size_t t) {
    if (!is_stereo() || profiles_.both[t].inverted) return false;
    const TapProfile& side = profiles_.side[t];
    if (!side.known || !side.inverted || side.likeness < kClear ||
        side.strength < kSwappedStrength) {
      return false;
    }
    add("sides", t, Severity::kFix,
        fmt::format("has left and right swapped: what differs between its sides stands in the mix "
                    "the other way "
                    "round (likeness {:.2f}). Swap them.",
                    side.likeness))
        .figures = {{"likeness", side.likeness}};
    return true;
  }

  void tell_drift(std::size_t t, const Drift& drift) {
    if (drift.samples_per_second == 0.0) {
      Finding& finding =
          add("drift", t, Severity::kFix,
              fmt::format("jumps by {} samples near {:.0f} s: {} late before, {} after. No single "
                          "lag mends that; look "
                          "for an edit or a dropout, and bounce it again.",
                          drift.after - drift.before, drift.jump_at, drift.before, drift.after));
      finding.where = {{drift.jump_at, drift.jump_at}};
      finding.figures = {{"before", static_cast<double>(drift.before)},
                         {"after", static_cast<double>(drift.after)}};
      return;
    }
    const double ppm = 1e6 * drift.samples_per_second / sums_.sr();
    add("drift", t, Severity::kFix,
        fmt::format("drifts by {:+.1f} ppm, from {} samples late to {}: it ran on a clock of its "
                    "own. Convert its "
                    "rate by that much, or bounce it in the session.",
                    ppm, drift.before, drift.after))
        .figures = {{"ppm", ppm},
                    {"before", static_cast<double>(drift.before)},
                    {"after", static_cast<double>(drift.after)}};
  }

  /// Energy of the tap that a delay takes out of line, in dB of the tap.
  double cost_of(std::size_t t, double delay) const {
    double moved = 0.0, all = 0.0;
    const auto& spectrum = sums_.spectrum(t);
    for (std::size_t k = 0; k < spectrum.size(); ++k) {
      const double half = std::numbers::pi * sums_.hz_of_bin(k) / sums_.sr() * delay;
      moved += spectrum[k] * 4.0 * std::sin(half) * std::sin(half);
      all += spectrum[k];
    }
    return db(moved / all);
  }

  void judge_lag(std::size_t t, bool curved) {
    const TapProfile& both = profiles_.both[t];
    const double late = static_cast<double>(placing_.places[t].late) - both.delay;
    const bool sure = std::abs(both.delay) > kSureBy * both.delay_deviation &&
                      both.likeness > kStraight && !curved;
    // Where phases bend, only the search knows.
    const double whole = sure ? std::nearbyint(late) : static_cast<double>(placing_.places[t].late);
    const double rest = late - whole;
    const auto move = static_cast<double>(moves_[t]);
    if (whole != 0.0) {
      const bool mended = std::abs(move + whole) <= 2.0;
      const char* const which = whole > 0.0 ? "late" : "early";
      const double ms = 1000.0 * std::abs(whole) / sums_.sr();
      add("lag", t, mended ? Severity::kNote : Severity::kFix,
          fmt::format(
              "is {:.0f} samples {} ({:.1f} ms). {}", std::abs(whole), which, ms,
              mended
                  ? "A render moves it by itself; is there a device that explains it?"
                  : "A render does not mend that. Bounce it with delay compensation, or move it by "
                    "hand."))
          .figures = {
          {"samples", whole}, {"ms", 1000.0 * whole / sums_.sr()}, {"render_moves", move}};
    } else if (move != 0.0) {
      add("ambiguous", t, Severity::kLook,
          fmt::format(
              "would be moved by {:+.0f} samples, though it lies in line: by plain correlation no "
              "lag is "
              "clearly better, and an EQ on the master bends it. verdel-chain lines up by phase.",
              move))
          .figures = {{"render_moves", move}};
    }
    if (sure && std::abs(rest) >= std::max(kLeastFraction, kSureBy * both.delay_deviation)) {
      add("fraction", t, Severity::kLook,
          fmt::format("lies {:.2f} samples {} beside whole ones (+-{:.2f}), which leaves {:.1f} dB "
                      "of it in the mix. "
                      "Bounce it with delay compensation; no whole lag mends that.",
                      std::abs(rest), rest > 0.0 ? "late" : "early", both.delay_deviation,
                      cost_of(t, rest)))
          .figures = {{"samples", rest}, {"cost_db", cost_of(t, rest)}};
    }
  }

  /// Where a tap stands highest and lowest against the others, by three bands at a time: one alone
  /// may be what its neighbour's compressor did.
  struct Shape {
    std::vector<BandRatio> sure;
    double low = 1e9, high = -1e9, low_hz = 0.0, high_hz = 0.0;

    double range() const { return std::max(high - low, 0.0); }
  };

  static Shape shape_of(const TapProfile& profile) {
    Shape shape;
    for (const BandRatio& band : profile.bands) {
      if (band.deviation < kSureBand * std::abs(band.ratio)) shape.sure.push_back(band);
    }
    const auto& sure = shape.sure;
    if (sure.size() < kFewestBands) return shape;
    for (std::size_t i = 1; i + 1 < sure.size(); ++i) {
      const double level = db(std::norm(sure[i - 1].ratio) * std::norm(sure[i].ratio) *
                              std::norm(sure[i + 1].ratio)) /
                           3.0;
      if (level < shape.low) shape.low = level, shape.low_hz = sure[i].hz;
      if (level > shape.high) shape.high = level, shape.high_hz = sure[i].hz;
    }
    return shape;
  }

  static bool is_curved(const TapProfile& profile) {
    const double range = shape_of(profile).range();
    return range > kCurveDb || (profile.likeness < kBend && range > kBendDb);
  }

  /// Sides that were compressed apart bend a tap in the middle, but not in each of them.
  bool is_curved_on_each_side(std::size_t t) const {
    if (!is_stereo() || middle_) return true;
    const auto on = [&](const TapProfile& side) {
      return !side.known || side.strength < kSwappedStrength || is_curved(side);
    };
    return on(profiles_.left[t]) && on(profiles_.right[t]);
  }

  bool judge_curve(std::size_t t) {
    const TapProfile& both = profiles_.both[t];
    if (!is_curved(both) || !is_curved_on_each_side(t)) return false;
    const auto [sure, low, high, low_hz, high_hz] = shape_of(both);
    double off = 0.0, all = 0.0;
    for (const BandRatio& band : sure) {
      double power = 0.0;
      for (std::size_t b = 0; b < sums_.bands().size(); ++b) {
        if (sums_.bands()[b].hz != band.hz) continue;
        for (std::size_t k = sums_.bands()[b].first; k < sums_.bands()[b].stop; ++k) {
          power += sums_.spectrum(t)[k];
        }
      }
      off += power * std::norm(band.ratio - both.strength);
      all += power * std::norm(band.ratio);
    }
    Finding& finding = add(
        "curve", t, Severity::kLook,
        fmt::format(
            "stands in the mix through an EQ or effect that the bounce lacks, or the other way "
            "round: "
            "{:+.1f} dB at {:.0f} Hz, {:+.1f} dB at {:.0f} Hz against the others; {:.1f} dB of it "
            "would come "
            "off what is left. Bounce it through all of its track, or render with verdel-chain.",
            high, high_hz, low, low_hz, db(off / all)));
    finding.figures = {{"high_db", high},
                       {"high_hz", high_hz},
                       {"low_db", low},
                       {"low_hz", low_hz},
                       {"left_db", db(off / all)}};
    for (const BandRatio& band : sure) {
      finding.figures.emplace_back(fmt::format("db_at_{:.0f}", band.hz), db(std::norm(band.ratio)));
    }
    return true;
  }

  void judge_ride(std::size_t t) {
    const TapProfile& both = profiles_.both[t];
    const double level = 20.0 * std::log10(std::max(both.strength, 1e-6));
    std::vector<double> levels;
    for (const SegmentLevel& at : both.levels) levels.push_back(at.db);
    std::ranges::sort(levels);
    if (levels.size() >= kFewestLevels) {
      // One segment alone may be the last beat, that a compressor lets through.
      const std::size_t last = levels.size() - 1;
      const double low = levels[std::max<std::size_t>(levels.size() / 10, 1)];
      const double high = levels[std::min(levels.size() * 9 / 10, last - 1)];
      const double middle = levels[levels.size() / 2];
      if (high - low >= kRideDb) {
        Finding& finding =
            add("ride", t, Severity::kFix,
                fmt::format("moves by {:.1f} dB against the others in the mix ({:+.1f} to "
                            "{:+.1f}), which its bounce does "
                            "not: its fader or a plug-in has changed since. Bounce it again.",
                            high - low, low, high));
        for (const SegmentLevel& at : both.levels) {
          if (std::abs(at.db - middle) >= 0.5 * kRideDb) {
            finding.where.push_back(sums_.stretch(at.segment));
          }
        }
        finding.figures = {{"low_db", low}, {"high_db", high}};
        return;
      }
    }
    if (std::abs(level) < kLevelDb) return;
    add("ride", t, Severity::kLook,
        fmt::format("is {:.1f} dB {} in the mix than its bounce, against the others: its fader "
                    "stands elsewhere now. "
                    "Bounce it as it is in the mix.",
                    std::abs(level), level > 0.0 ? "louder" : "softer"))
        .figures = {{"level_db", level}};
  }

  bool find_missing() {
    if (sums_.stretch(sums_.segments() - 1).to < kShortestSeconds) return false;
    // What drifts is in the mix, and explains nothing.
    for (const Place& place : placing_.places) {
      if (place.drift) return false;
    }
    double all = 0.0, missing = 0.0;
    std::vector<double> by_band(sums_.bands().size()), by_segment(sums_.segments());
    for (std::size_t e = 0; e < fits_.size() && e < 2; ++e) {
      for (std::size_t b = 0; b < sums_.bands().size(); ++b) {
        for (std::size_t s = 0; s < sums_.segments(); ++s) {
          const Rest& rest = fits_[e].rest(s, b);
          all += rest.mix;
          if (rest.left < kUnexplained * rest.mix) continue;
          by_band[b] += rest.left;
          by_segment[s] += rest.left;
          missing += rest.left;
        }
      }
    }
    if (!(missing > kMissingShare * all)) return false;
    const auto most = static_cast<std::size_t>(std::ranges::max_element(by_band) - by_band.begin());
    std::size_t first = most, last = most;
    while (first > 0 && by_band[first - 1] > 0.1 * by_band[most]) --first;
    while (last + 1 < by_band.size() && by_band[last + 1] > 0.1 * by_band[most]) ++last;
    Finding finding{.kind = "missing",
                    .taps = {},
                    .severity = Severity::kFix,
                    .text = {},
                    .where = {},
                    .figures = {}};
    const double loudest = *std::ranges::max_element(by_segment);
    for (std::size_t s = 0; s < by_segment.size(); ++s) {
      if (by_segment[s] < 0.05 * loudest) continue;
      const Stretch at = sums_.stretch(s);
      if (!finding.where.empty() && at.from <= finding.where.back().to) {
        finding.where.back().to = at.to;
      } else {
        finding.where.push_back(at);
      }
    }
    finding.text = fmt::format(
        "something in the mix stands in no tap: {:.1f} dB of it, loudest around {:.0f} Hz ({:.0f} "
        "to {:.0f} Hz). Bounce "
        "what is missing, a return or a track.",
        db(missing / all), sums_.bands()[most].hz, sums_.bands()[first].hz, sums_.bands()[last].hz);
    finding.figures = {{"level_db", db(missing / all)},
                       {"hz", sums_.bands()[most].hz},
                       {"from_hz", sums_.bands()[first].hz},
                       {"to_hz", sums_.bands()[last].hz}};
    findings_.push_back(std::move(finding));
    return true;
  }

  static constexpr double kClear = 0.7;

  const Placing& placing_;
  const SpectralSums& sums_;
  const std::vector<std::string>& names_;
  const std::vector<bool>& left_out_;
  const std::vector<std::ptrdiff_t>& moves_;
  std::vector<TapFits> fits_;
  bool middle_ = false;  ///< the fits of middle and sides say the mix better than left and right
  Profiles profiles_;
  std::vector<Finding> findings_;
};

}  // namespace

std::vector<Finding> mix_findings(const Placing& placing, const std::vector<std::string>& names,
                                  const std::vector<bool>& left_out,
                                  const std::vector<std::ptrdiff_t>& moves) {
  return Judge(placing, names, left_out, moves).run();
}

}  // namespace verdel::internal
