#include "driver/option_rules.hpp"

#include <gtest/gtest.h>

#include "support/files.hpp"

namespace verdel::internal {
namespace {

using Arguments = std::vector<std::string>;

/// The message of the rule that fires, or nothing.
std::string rule_on(const Arguments& arguments) {
  const CommandLine command_line("verdel", entries_of(option_table()));
  Options options = *parse_record(command_line, option_table(), arguments);
  const std::string failure =
      testing::failure_of<UsageError>([&] { apply_option_rules(options, command_line); });
  if (!failure.empty()) return failure.substr(failure.find(": error: ") + 9);
  EXPECT_TRUE(options.bands && options.gain_smooth);
  return {};
}

constexpr const char* kTiming =
    "single-band timing values must be finite and nonnegative, with positive windows";
constexpr const char* kBands = "single-band allocation requires --bands32 or128";

TEST(OptionRules, FireInTheirOrderWithTheirWords) {
  const std::pair<Arguments, std::string> kCases[] = {
      {{}, ""},
      {{"--bands", "32"}, ""},
      {{"--bands", "1"}, "--bands must be at least2"},
      {{"--bands", "-99999999999999999999"}, "--bands must be at least2"},
      {{"--bands", "64", "--rule", "tail"}, kBands},
      {{"--bands", "99999999999999999999"}, kBands},
      {{"--tap-gain", "per", "--rule", "tail", "--priority", "vox"},
       "single-band mode does not support --tap-gain, --rule, --priority/--sink"},
      {{"--stereo-link", "max", "--band-couple", "nan", "--quiet-gate", "--sink", ""},
       "single-band mode does not support --stereo-link, --band-couple, --quiet-gate, "
       "--priority/--sink"},
      {{"--gain-attack", "5", "--gain-release", "5"},
       "single-band mode does not support gain ballistics"},
      {{"--gain-lookahead", "0"}, "single-band mode does not support gain ballistics"},
      {{"--gain-release", "nan", "--gain-window", "0"},
       "single-band mode does not support gain ballistics"},
      {{"--gain-attack", "-0.0"}, ""},
      {{"--allocation", "candidate14", "--low-resolution", "x", "--gain-window", "0"},
       "candidate14 allocation does not use manual low-resolution tracks"},
      {{"--low-resolution", "x"}, ""},
      {{"--gain-smooth", "0"}, ""},
      {{"--gain-smooth", "-1"}, kTiming},
      {{"--gain-smooth", "nan"}, kTiming},
      {{"--gain-window", "0"}, kTiming},
      {{"--gain-window", "inf"}, kTiming},
      {{"--alloc-window", "0"}, kTiming},
      {{"--alloc-window", "-inf"}, kTiming},
      {{"--sharpness", "9", "--tail-hold", "nan", "--gain-model", "multiband"}, ""},
  };
  for (const auto& [arguments, message] : kCases) {
    EXPECT_EQ(rule_on(arguments), message) << ::testing::PrintToString(arguments);
  }
}

TEST(OptionRules, UnknownLowResolutionNamesAreListedAsGiven) {
  const CommandLine command_line("verdel", entries_of(option_table()));
  Options options;
  options.low_resolution = {"Snare", "kick", "Kick", "Vox"};
  EXPECT_EQ(testing::failure_of<UsageError>([&] {
              require_known_low_resolution(options, {"Kick", "Snare"}, command_line);
            }),
            command_line.usage() +
                "verdel: error: --low-resolution requires an exact tap basename; unknown: kick, "
                "Vox");
  options.low_resolution = {"Kick"};
  EXPECT_NO_THROW(require_known_low_resolution(options, {"Kick", "Snare"}, command_line));
}

}  // namespace
}  // namespace verdel::internal
