#include "driver/option_parser.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <sstream>
#include <tuple>

#include "support/files.hpp"
#include "support/number_text.hpp"

namespace verdel::internal {
namespace {

using Arguments = std::vector<std::string>;

CommandLine full() {
  return {"verdel", entries_of(option_table())};
}
CommandLine shipping() {
  return {"VERDEL Engine", entries_of(engine_option_table())};
}

std::string text_of(const OptionValue& value) {
  if (const auto* flag = std::get_if<bool>(&value)) return *flag ? "true" : "false";
  if (const auto* whole = std::get_if<std::int64_t>(&value)) return std::to_string(*whole);
  if (const auto* real = std::get_if<double>(&value)) return shortest_float64(*real);
  return "[" + std::get<std::string>(value) + "]";
}

/// What the parser makes of the arguments: its settings in order, "help", or the error's message.
std::string outcome(const CommandLine& command_line, const std::vector<OptionEntry>& entries,
                    const Arguments& arguments) {
  std::string text = "help";
  const std::string failure = testing::failure_of<UsageError>([&] {
    const auto settings = command_line.parse(arguments);
    if (!settings) return;
    text.clear();
    for (const auto& setting : *settings) {
      if (!text.empty()) text += ' ';
      text.append(entries[setting.option].name).append("=").append(text_of(setting.value));
    }
  });
  EXPECT_TRUE(failure.empty() || failure.starts_with(command_line.usage()));
  return failure.empty() ? text : failure.substr(failure.find(": error: ") + 2);
}

TEST(OptionParser, FollowsTheRulesOfTheCommandLine) {
  const std::pair<Arguments, std::string> kCases[] = {
      // forms
      {{}, ""},
      {{"--mix", "a", "--mix=b"}, "--mix=[a] --mix=[b]"},
      {{"--mix=a=b"}, "--mix=[a=b]"},
      {{"--mix", ""}, "--mix=[]"},
      {{"--no-report"}, "--no-report=true"},
      {{"--sink", "a", "--sink", "b"}, "--sink=[a] --sink=[b]"},
      // kinds
      {{"--bands", " +128 "}, "--bands=128"},
      {{"--bands", "99999999999999999999"}, "--bands=9223372036854775807"},
      {{"--bands", "1.5"}, "error: --bands takes a whole number, not “1.5”"},
      {{"--tilt", "0x10"}, "error: --tilt takes a number, not “0x10”"},
      {{"--rule", "tail"}, "--rule=[tail]"},
      {{"--rule", "Tail"},
       "error: --rule takes one of energy, sharp, corr, scorr, lsq, tail, not “Tail”"},
      // prefixes: a hidden option counts, an exact name wins
      {{"--any"}, "--any-channels=true"},
      {{"--excerpt-l=2"}, "--excerpt-len=2.0"},
      {{"--priority", "x"}, "--priority=[x]"},
      {{"--alloc", "5"}, "error: --alloc could be any of --allocation, --alloc-window"},
      {{"--quiet-gate"}, "--quiet-gate=true"},
      // values that begin with a dash
      {{"--excerpt-start", "-5"}, "--excerpt-start=-5.0"},
      {{"--excerpt-start", "-.5"}, "--excerpt-start=-0.5"},
      {{"--excerpt-start", "-1e-05"}, "--excerpt-start=-1e-05"},
      {{"--excerpt-start", "-nan"}, "--excerpt-start=nan"},
      {{"--excerpt-start", "-5x"}, "error: --excerpt-start needs a value"},
      {{"--mix", "-"}, "--mix=[-]"},
      {{"--mix", "-a b.wav"}, "--mix=[-a b.wav]"},
      {{"--mix", "-a.wav"}, "error: --mix needs a value"},
      {{"--mix", "--mi=a b"}, "error: --mix needs a value"},
      {{"--mix", "--no-report"}, "error: --mix needs a value"},
      {{"--mix", "--"}, "error: --mix needs a value"},
      {{"--mix=-h"}, "--mix=[-h]"},
      {{"--mix"}, "error: --mix needs a value"},
      // what is nobody's
      {{"stray"}, "error: unknown arguments: stray"},
      {{"--foo=1", "x", "--mix", "a"}, "error: unknown arguments: --foo=1 x"},
      {{"-m", "a"}, "error: unknown arguments: -m a"},
      {{"--", "--help"}, "error: unknown arguments: -- --help"},
      {{"--=5"}, "error: unknown arguments: --=5"},
      {{"--no-report=1"}, "error: --no-report takes no value"},
      {{"--help=1"}, "error: --help takes no value"},
      // help at its turn
      {{"--he"}, "help"},
      {{"--foo", "-h", "--bands", "x"}, "help"},
      {{"--bands", "x", "-h"}, "error: --bands takes a whole number, not “x”"},
      {{"--alloc", "-h"}, "error: --alloc could be any of --allocation, --alloc-window"},
  };
  for (const auto& [arguments, expected] : kCases) {
    EXPECT_EQ(outcome(full(), entries_of(option_table()), arguments), expected)
        << ::testing::PrintToString(arguments);
  }
  const auto entries = entries_of(engine_option_table());
  EXPECT_EQ(outcome(shipping(), entries, {"--foo"}), "error: missing required: --mix");
  EXPECT_EQ(outcome(shipping(), entries, {"--project", "a", "--mix", "a"}),
            "error: unknown arguments: --project a");
}

TEST(OptionParser, FillsTheFieldOfTheSameName) {
  std::istringstream words(
      "--mix m --bands 32 --gain-smooth 7 --sink a --sink b --low-resolution c --tilt 2 "
      "--quiet-gate-db -3 --excerpt-len 1 --rule lsq --rule corr --suggest-excerpt 9 --out o "
      "--write-null --priority p --project pr --no-rep --gain-lookahead -2 --tap-gain joint "
      "--gain-window 11 --gain-attack 12 --gain-release 13 --band-couple 14 --bound 15 "
      "--tail-strength 16 --tail-hold 17 --tap-bound 18 --joint-ridge 19 --joint-hop 20 "
      "--excerpt-start 21 --alloc-window 22 --priority-share 23");
  const Arguments arguments(std::istream_iterator<std::string>(words), {});
  const auto options = parse_record(full(), option_table(), arguments);
  using Names = std::vector<std::string>;
  const Options& o = *options;
  EXPECT_EQ(std::tie(*o.mix, *o.out, o.project, o.rule, o.tap_gain),
            (std::tuple{"m", "o", "pr", "corr", "joint"}));
  EXPECT_EQ(o.taps, std::nullopt);
  EXPECT_EQ(std::tie(o.bands, o.gain_smooth, o.gain_lookahead, o.tilt, o.sharpness, o.quiet_gate_db,
                     o.excerpt_len, o.suggest_excerpt),
            (std::tuple{32, 7.0, -2.0, 2.0, 1.0, -3.0, 1.0, 9.0}));
  EXPECT_EQ(std::tie(o.gain_window, o.gain_attack, o.gain_release, o.band_couple, o.bound,
                     o.tail_strength, o.tail_hold),
            (std::tuple{11.0, 12.0, 13.0, 14.0, 15.0, 16.0, 17.0}));
  EXPECT_EQ(std::tie(o.tap_bound, o.joint_ridge, o.joint_hop, o.excerpt_start, o.alloc_window,
                     o.priority_share),
            (std::tuple{18.0, 19.0, 20.0, 21.0, 22.0, 23.0}));
  EXPECT_EQ(std::tie(o.write_null, o.no_report, o.progress_json), (std::tuple{true, true, false}));
  EXPECT_EQ(std::tie(o.sink, o.low_resolution, o.priority),
            (std::tuple{Names{"a", "b"}, Names{"c"}, Names{"p"}}));
}

TEST(OptionParser, HelpShowsEachOptionOnceAndHidesTheHidden) {
  const std::string help = full().help();
  std::set<std::string_view> names;
  for (const OptionEntry& entry : entries_of(option_table())) {
    EXPECT_TRUE(names.insert(entry.name).second) << entry.name;
    if (!entry.choices.empty()) {
      EXPECT_THAT(entry.choices, ::testing::Contains(entry.default_text)) << entry.name;
    }
    const std::string line = fmt::format("\n  {}", entry.name);
    const auto place = std::min(help.find(line + " "), help.find(line + "\n"));
    EXPECT_EQ(place == std::string::npos, entry.hidden) << entry.name;
    EXPECT_TRUE(entry.hidden || help.find(entry.help) != std::string::npos) << entry.name;
  }
  EXPECT_EQ(names.size(), 39U);
  EXPECT_EQ(entries_of(engine_option_table()).size(), 9U);
  EXPECT_TRUE(help.starts_with(full().usage()));
  EXPECT_NE(help.find("\n  --low-resolution NAME\n"), std::string::npos);
  EXPECT_NE(help.find("\n  --sharpness SHARPNESS\n  --tilt TILT\n"), std::string::npos);
  for (const std::string& line : testing::lines_of(full().usage())) EXPECT_LE(line.size(), 90U);
}

}  // namespace
}  // namespace verdel::internal
