#include "driver/option_rules.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace verdel::internal {
namespace {

/// What was asked for that only other ways of working offer. A NaN differs from every default.
std::vector<std::string_view> unsupported_features(const Options& options) {
  std::vector<std::string_view> features;
  if (options.tap_gain != "shared") features.push_back("--tap-gain");
  if (options.stereo_link != "off") features.push_back("--stereo-link");
  if (options.band_couple != 0.0) features.push_back("--band-couple");
  if (options.gain_attack != 0.0 || options.gain_release != 0.0 || options.gain_lookahead != -1.0) {
    features.push_back("gain ballistics");
  }
  if (options.rule != "energy") features.push_back("--rule");
  if (options.quiet_gate) features.push_back("--quiet-gate");
  if (!options.priority.empty() || !options.sink.empty()) features.push_back("--priority/--sink");
  return features;
}

bool timing_is_sound(double gain_window, double gain_smooth, double alloc_window) {
  return std::isfinite(gain_window) && std::isfinite(gain_smooth) && std::isfinite(alloc_window) &&
         gain_window > 0.0 && gain_smooth >= 0.0 && alloc_window > 0.0;
}

}  // namespace

void apply_option_rules(Options& options, const CommandLine& command_line) {
  constexpr Profile profile;
  const std::int64_t bands =
      options.bands.value_or(static_cast<std::int64_t>(profile.report_bands));
  const double gain_smooth = options.gain_smooth.value_or(profile.gain_smooth_ms);
  options.bands = bands;
  options.gain_smooth = gain_smooth;

  if (bands < 2) command_line.fail("--bands must be at least2");
  if (bands != 32 && bands != 128) {
    command_line.fail("single-band allocation requires --bands32 or128");
  }
  const auto features = unsupported_features(options);
  if (!features.empty()) {
    command_line.fail(
        fmt::format("single-band mode does not support {}", fmt::join(features, ", ")));
  }
  if (options.allocation == "candidate14" && !options.low_resolution.empty()) {
    command_line.fail("candidate14 allocation does not use manual low-resolution tracks");
  }
  if (!timing_is_sound(options.gain_window, gain_smooth, options.alloc_window)) {
    command_line.fail(
        "single-band timing values must be finite and nonnegative, with positive windows");
  }
}

void require_known_low_resolution(const Options& options, const std::vector<std::string>& names,
                                  const CommandLine& command_line) {
  std::vector<std::string_view> unknown;
  for (const std::string& entry : options.low_resolution) {
    if (std::ranges::find(names, entry) == names.end()) unknown.push_back(entry);
  }
  if (!unknown.empty()) {
    command_line.fail(fmt::format("--low-resolution requires an exact tap basename; unknown: {}",
                                  fmt::join(unknown, ", ")));
  }
}

}  // namespace verdel::internal
