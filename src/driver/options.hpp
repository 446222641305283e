#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "signal/profile.hpp"

namespace verdel::internal {

/// What the full command line asks for; the meaning of each field is its option's help text. The
/// values here are the defaults of the options. Many fields belong to ways of working that VERDEL
/// does not offer: apply_option_rules refuses them, or nothing reads them.
struct Options {
  std::optional<std::string> mix, taps, out;  ///< completed by project resolution
  std::string project = ".";
  std::string gain_model = "multiband";
  std::optional<std::int64_t> bands;  ///< completed by apply_option_rules
  std::string allocation = "fixed";
  std::vector<std::string> low_resolution;
  double gain_window = Profile{}.gain_window_ms;
  std::optional<double> gain_smooth;  ///< ms; completed by apply_option_rules
  double gain_attack = 0.0, gain_release = 0.0, gain_lookahead = -1.0;  ///< ms
  std::string stereo_link = "off";
  double band_couple = 0.0;
  std::string rule = "energy";
  double sharpness = 1.0, tilt = 1.0, bound = 1.0;
  double tail_strength = 0.85;
  double tail_hold = 400.0;  ///< ms
  bool quiet_gate = false;
  double quiet_gate_db = -40.0;
  std::string tap_gain = "shared";
  double tap_bound = 4.0, joint_ridge = 1.0;
  double joint_hop = 5.0;                            ///< ms
  std::optional<double> excerpt_start, excerpt_len;  ///< s
  bool any_channels = false;
  bool strict_inputs = false;
  double suggest_excerpt = 0.0;  ///< s; above 0 asks for a suggestion instead of a render
  bool write_null = false;
  bool no_report = false;
  bool progress_json = false;
  double alloc_window = 5.0;  ///< ms
  std::vector<std::string> priority;
  double priority_share = 0.0;
  std::vector<std::string> sink;
};

/// What the parent application may ask the engine for.
struct EngineOptions {
  std::optional<std::string> mix, taps, out;
  std::optional<double> excerpt_start, excerpt_len;  ///< s
  double suggest_excerpt = 0.0;                      ///< s
  bool strict_inputs = false;
  bool no_report = false;
  bool progress_json = false;
};

/// What a render asks for that hears the master chain first.
struct ChainOptions {
  std::optional<std::string> mix, taps, out;
  std::string project = ".";
  std::optional<double> excerpt_start, excerpt_len;  ///< s
  bool no_report = false;
  bool write_null = false;
  bool progress_json = false;
  bool look = false;                   ///< find and tell, render nothing
  bool no_tap_filters = false;         ///< do not look for what single taps went through
  bool no_gains = false;               ///< do not look for gains
  std::optional<std::string> taps_to;  ///< a folder for the taps as heard
  std::optional<std::string> json;     ///< a file for what was found
  std::optional<std::string> picture;  ///< the same to look at
};

/// What a look at taps before a render needs.
struct CheckOptions {
  std::optional<std::string> mix, taps;
  std::string project = ".";
  bool json = false;
};

/// What handing stems over asks for.
struct DeliverOptions {
  std::optional<std::string> mix, stems, to;
  std::string bits = "24";
  std::string format = "wav";
  std::string name = "{stem}";
  bool json = false;
  bool progress_json = false;
};

/// What a second opinion on a folder of stems needs.
struct VerifyOptions {
  std::optional<std::string> mix, stems;
  std::optional<double> excerpt_start;          ///< s; where stems of an excerpt begin
  double threshold = Profile{}.null_threshold;  ///< dBFS
  bool json = false;
};

}  // namespace verdel::internal
