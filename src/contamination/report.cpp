#include "contamination/report.hpp"

#include <fmt/format.h>

#include <cmath>
#include <cstddef>
#include <string>

#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr double kFlagAbove = -20.0;  // dB
constexpr std::size_t kNameWidth = 14;

// "resembles Kick (0.24)", for the tap that the foreign part follows most closely; nothing unless
// it follows one at all. On a tie the earlier tap stays, and no comparison holds for a coefficient
// that is not a number.
std::string likeness(const StemContamination& figures, const StemViews& taps) {
  double best = 0.0;
  const std::string* best_name = nullptr;
  for (std::size_t i = 0; i < taps.size(); ++i) {
    if (figures.resemblance[i] > best) {
      best = figures.resemblance[i];
      best_name = &taps[i].name;
    }
  }
  return best_name == nullptr ? "" : fmt::format("resembles {} ({:.2f})", *best_name, best);
}

}  // namespace

std::string report_line(const std::string& name, const StemContamination& figures,
                        const StemViews& taps) {
  // A stem that is foreign in full may come out a rounding below 0: no "-0.0".
  const double ratio = std::abs(figures.ratio) < 0.05 ? 0.0 : figures.ratio;
  return fmt::format("  {} foreign {:6.1f} dB   {}{}", pad_right(name, kNameWidth), ratio,
                     likeness(figures, taps), figures.ratio > kFlagAbove ? "  <-- check this" : "");
}

void report(const ReportJob& job, const LineSink& print, const StopToken& stop) {
  print("");
  print("--- contamination report ---");
  print("how much of each stem is not its own source, and what it looks like");
  print("");
  const std::vector<StemContamination> figures = measure_contamination(job, stop);
  for (std::size_t s = 0; s < figures.size(); ++s) {
    print(report_line(job.est[s].name, figures[s], job.taps));
  }
  print("");
  print("  under -30 dB is clean, -20 to -30 is usually inaudible,");
  print("  above -20 dB you will probably hear it.");
}

}  // namespace verdel::internal
