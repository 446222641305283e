#include "driver/deliver_lines.hpp"

#include <fmt/format.h>

#include <cmath>

#include "inputs/path_text.hpp"
#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kNameWidth = 14;  // characters

double samples_of(const HandoverPlan& plan) {
  return static_cast<double>(plan.channels) * static_cast<double>(plan.frames);
}

double rms_steps(double squares, const HandoverPlan& plan) {
  return plan.frames == 0 ? 0.0 : std::sqrt(squares / samples_of(plan));
}

/// Steps as a level; -999 for none.
double level_of(double steps, const Handover& job) {
  return steps > 0.0 ? 20.0 * std::log10(steps / job.format.grid().steps()) : -999.0;
}

std::string level_text(double db) {
  return std::isfinite(db) ? fmt::format("{:.1f}", db) : std::isnan(db) ? "unknown" : "-inf";
}

std::string json_level(double db) {
  return std::isfinite(db) ? fmt::format("{:.2f}", db) : "null";
}

std::string bits_text(std::optional<int> bits) {
  return bits ? fmt::format("{}-bit", *bits) : "floating point";
}

void print_mix_rounding(const Handover& job, const HandoverPlan& plan, const MixRounding& rounding,
                        OutputLines& lines) {
  const double rms = rms_steps(rounding.squares, plan);
  lines.print(fmt::format(
      "the mix is rounded to {} bits, to the nearest without dither: {} of {:.0f} samples change, "
      "by "
      "{:.2f} steps at most ({} dBFS), rms {:.2f} ({} dBFS). It is delivered too, as {}",
      job.format.bits(), rounding.changed.samples, samples_of(plan), rounding.changed.largest,
      level_text(level_of(rounding.changed.largest, job)), rms, level_text(level_of(rms, job)),
      plan.names.mix));
}

std::string levels_text(const StemLevels& levels) {
  return fmt::format("peak {} dBFS  true peak {} dBTP  {} LUFS  range {} LU",
                     level_text(levels.peak_dbfs), level_text(levels.true_peak_dbtp),
                     level_text(levels.loudness_lufs), level_text(levels.loudness_range_lu));
}

/// What was too loud for some stems, and who took it.
void print_relief(const Handover& job, const HandoverPlan& plan, const HandedOver& done,
                  OutputLines& lines) {
  const auto print = [&](std::size_t stem, const SampleCount& count, const char* what) {
    if (count.samples == 0) return;
    lines.print(fmt::format("{}: {} at {}, up to {} dBFS, the first {}", job.stems[stem].name, what,
                            counted(count.samples, "sample"),
                            level_text(level_of(count.largest, job)),
                            place_text(count.frame, count.channel, plan.sr)));
  };
  bool none = true;
  for (std::size_t s = 0; s < done.stem_roundings.size(); ++s) {
    const StemRounding& rounding = done.stem_roundings[s];
    print(s, rounding.relieved, "would clip, others hold what is over");
    print(s, rounding.took, "holds what is over in others");
    none = none && rounding.relieved.samples == 0;
  }
  if (none) lines.print("no stem clips");
}

std::string count_json(const SampleCount& count, const Handover& job, const HandoverPlan& plan) {
  if (count.samples == 0) return R"({"samples": 0})";
  return fmt::format(
      R"({{"samples": {}, "largest_dbfs": {}, "first_sample": {}, "channel": {}, "seconds": {:.3f}}})",
      count.samples, json_level(level_of(count.largest, job)), count.frame, count.channel + 1,
      static_cast<double>(count.frame) / plan.sr);
}

std::string stem_json(std::size_t s, const Handover& job, const HandoverPlan& plan,
                      const HandedOver& done) {
  const auto& [name, file, levels] = done.manifest.stems[s];
  std::string text = fmt::format(
      R"({{"name": {}, "file": {}, "sha256": "{}", "peak_dbfs": {}, "true_peak_dbtp": {}, )"
      R"("loudness_lufs": {}, "loudness_range_lu": {})",
      json_string(name), json_string(file.file), file.sha256, json_level(levels.peak_dbfs),
      json_level(levels.true_peak_dbtp), json_level(levels.loudness_lufs),
      json_level(levels.loudness_range_lu));
  if (job.format.is_integer()) {
    const StemRounding& rounding = done.stem_roundings[s];
    text += fmt::format(
        R"(, "largest_departure_steps": {}, "rms_departure_steps": {:.4f}, "relieved": {}, "took": {})",
        rounding.largest_departure, rms_steps(rounding.squares, plan),
        count_json(rounding.relieved, job, plan), count_json(rounding.took, job, plan));
  }
  return text + "}";
}

}  // namespace

void print_handover_head(const Handover& job, const HandoverPlan& plan, OutputLines& lines) {
  lines.print(fmt::format("mix    {}  {} Hz  {}ch  {:.1f}s  {}",
                          printable(basename(job.mix.files.front())), plan.sr, plan.channels,
                          static_cast<double>(plan.frames) / plan.sr, bits_text(plan.mix_bits)));
  lines.print(fmt::format("stems  {}  ({})", printable(dirname(job.stems.front().files.front())),
                          counted(job.stems.size(), "stem")));
  lines.print(fmt::format("to     {}", printable(job.to)));
  lines.print("");
  lines.flush();
}

void print_handover(const Handover& job, const HandoverPlan& plan, const HandedOver& done,
                    OutputLines& lines) {
  if (plan.rounds_mix) print_mix_rounding(job, plan, done.mix_rounding, lines);
  for (std::size_t s = 0; s < job.stems.size(); ++s) {
    std::string line = fmt::format("stem  {} {}", pad_right(job.stems[s].name, kNameWidth),
                                   levels_text(done.manifest.stems[s].levels));
    if (job.format.is_integer()) {
      const StemRounding& rounding = done.stem_roundings[s];
      line += fmt::format("   departs {} at most, rms {:.2f}",
                          counted(rounding.largest_departure, "step"),
                          rms_steps(rounding.squares, plan));
    }
    lines.print(line);
  }
  if (!job.format.is_integer()) {
    lines.print("");
    lines.print(fmt::format("null residual: {} dBFS  PASS", one_decimal(done.null_peak)));
    return;
  }
  print_relief(job, plan, done, lines);
  lines.print("");
  const std::string against =
      plan.rounds_mix ? fmt::format(", as rounded to {}", plan.names.mix) : "";
  lines.print(fmt::format("sums to the mix exactly{}: {}, {}, {} bits", against,
                          counted(job.stems.size(), "stem"), counted(plan.frames, "frame"),
                          job.format.bits()));
}

void print_handover_json(const Handover& job, const HandoverPlan& plan, const HandedOver& done,
                         OutputLines& lines) {
  std::string stems;
  for (std::size_t s = 0; s < job.stems.size(); ++s) {
    if (s > 0) stems += ", ";
    stems += stem_json(s, job, plan, done);
  }
  std::string mix;
  if (plan.rounds_mix) {
    const double rms = rms_steps(done.mix_rounding.squares, plan);
    mix = fmt::format(
        R"("mix": {{"file": {}, "sha256": "{}", "changed_samples": {}, "largest_change_steps": {:.3f}, )"
        R"("rms_change_steps": {:.4f}}}, )",
        json_string(plan.names.mix), done.manifest.mix->sha256, done.mix_rounding.changed.samples,
        done.mix_rounding.changed.largest, rms);
  }
  const std::string null = job.format.is_integer()
                               ? ""
                               : fmt::format(R"("peak_dbfs": {}, )", json_level(done.null_peak));
  lines.print(fmt::format(
      R"({{"to": {}, "sample_rate": {}, "bits": {}, "frames": {}, "sums_exactly": {}, {}{}"stems": [{}]}})",
      json_string(job.to), plan.sr,
      job.format.is_integer() ? job.format.bits() : json_string(job.format.bits()), plan.frames,
      done.manifest.sums_exactly, mix, null, stems));
}

}  // namespace verdel::internal
