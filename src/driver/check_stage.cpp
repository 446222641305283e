#include "driver/check_stage.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "diagnosis/diagnose.hpp"
#include "inputs/audio_blocks.hpp"
#include "inputs/audio_loading.hpp"
#include "inputs/path_text.hpp"
#include "inputs/project_resolution.hpp"
#include "support/errors.hpp"
#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kMostPlaces = 8;  // that a line names

template <class Values, class Text>
std::string joined(const Values& values, const char* between, Text text) {
  std::string all;
  for (const auto& value : values) {
    all += all.empty() ? "" : between;
    all += text(value);
  }
  return all;
}

/// `length`: taps that are not as long as the mix.
std::vector<Finding> length_findings(const std::vector<StemInput>& plan, std::size_t frames, int sr,
                                     const StopToken& stop) {
  std::vector<Finding> findings;
  for (const StemInput& tap : plan) {
    const std::size_t own = count_frames(tap, stop);
    if (own == frames) continue;
    const auto off = static_cast<double>(own) - static_cast<double>(frames);
    findings.push_back(
        {.kind = "length",
         .taps = {tap.name},
         .severity = Severity::kLook,
         .text = fmt::format(
             "is {} {} than the mix ({:.3f} s), and is {} at its end. Bounce mix and taps "
             "over one range.",
             counted(static_cast<std::size_t>(std::abs(off)), "sample"),
             off > 0.0 ? "longer" : "shorter", std::abs(off) / sr, off > 0.0 ? "cut" : "filled up"),
         .where = {},
         .figures = {{"samples", off}}});
  }
  return findings;
}

std::string place_text(const Stretch& at) {
  return at.to - at.from < 0.1 ? fmt::format("{:.3f} s", at.from)
                               : fmt::format("{:.1f}-{:.1f} s", at.from, at.to);
}

std::string where_text(const Finding& finding) {
  if (finding.where.empty()) return {};
  const std::size_t shown = std::min(finding.where.size(), kMostPlaces);
  const std::vector<Stretch> first(finding.where.begin(),
                                   finding.where.begin() + static_cast<std::ptrdiff_t>(shown));
  return fmt::format(" [{}{}]", joined(first, ", ", place_text),
                     shown < finding.where.size() ? ", ..." : "");
}

void print_text(const std::vector<Finding>& findings, OutputLines& lines) {
  for (const Finding& finding : findings) {
    const std::string taps =
        joined(finding.taps, ", ", [](const std::string& name) { return printable(name); });
    lines.print(fmt::format("{:<4}  {:<11}  {}{}{}{}", name_of(finding.severity), finding.kind,
                            taps, taps.empty() ? "" : ": ", finding.text, where_text(finding)));
  }
  if (findings.empty()) lines.print("nothing found");
}

std::string finding_json(const Finding& finding) {
  const auto number = [](double value) { return fmt::format("{:.6g}", value); };
  return fmt::format(
      R"({{"kind": "{}", "taps": [{}], "where": [{}], "severity": "{}", "text": {}, "figures": {{{}}}}})",
      finding.kind, joined(finding.taps, ", ", json_string),
      joined(finding.where, ", ",
             [](const Stretch& at) { return fmt::format("[{:.3f}, {:.3f}]", at.from, at.to); }),
      name_of(finding.severity), json_string(finding.text),
      joined(finding.figures, ", ", [&](const auto& figure) {
        return fmt::format("{}: {}", json_string(figure.first), number(figure.second));
      }));
}

}  // namespace

bool check_taps(const CheckOptions& options, const Machine& machine, OutputLines& lines,
                const StopToken& stop) {
  ProjectPaths paths{.project = options.project, .mix = options.mix, .taps = options.taps};
  const auto chosen = resolve(paths);
  if (!options.json) {
    for (const std::string& line : chosen) {
      if (!line.starts_with("out ")) lines.print(line);
    }
  }
  lines.stage("reading the mix");
  const LoadedAudio mix = load_audio_input(plan_mix_input(*paths.mix), stop);
  if (mix.audio.rows() > 2) {
    throw ValueError(fmt::format("{}: {} channels; mono and stereo can be checked.",
                                 quoted_path(*paths.mix), mix.audio.rows()));
  }
  const auto plan = plan_stem_inputs(*paths.taps);
  lines.stage("reading the taps");
  StemMap taps = load_stem_inputs(
      plan,
      {.mix_sr = mix.sr,
       .mix_channels = mix.audio.rows(),
       .mix_frames = mix.audio.columns(),
       .workers = machine.processors()},
      [](std::string_view) {}, stop);
  std::vector<Finding> findings = length_findings(plan, mix.audio.columns(), mix.sr, stop);
  lines.stage("listening");
  std::ranges::move(diagnose(mix.audio.view(), taps, mix.sr, machine, stop),
                    std::back_inserter(findings));
  std::ranges::stable_sort(findings, {}, &Finding::severity);
  if (options.json) {
    lines.print(fmt::format(R"({{"findings": [{}]}})", joined(findings, ", ", finding_json)));
  } else {
    print_text(findings, lines);
  }
  return std::ranges::all_of(
      findings, [](const Finding& finding) { return finding.severity == Severity::kNote; });
}

}  // namespace verdel::internal
