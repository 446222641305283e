#include "driver/option_parser.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "support/number_text.hpp"

namespace verdel {
namespace {

using Arguments = std::vector<std::string>;

CommandLine full() {
  return {"verdel", entries_of(option_table())};
}
CommandLine shipping() {
  return {"VERDEL Engine", entries_of(shipping_option_table())};
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
  try {
    const auto settings = command_line.parse(arguments);
    if (!settings) return "help";
    std::vector<std::string> texts;
    for (const auto& setting : *settings) {
      texts.push_back(fmt::format("{}={}", entries[setting.option].name, text_of(setting.value)));
    }
    return fmt::format("{}", fmt::join(texts, " "));
  } catch (const UsageError& error) {
    const std::string text = error.what();
    EXPECT_EQ(text.substr(0, command_line.usage().size()), command_line.usage());
    const auto at = text.find(": error: ");
    return "error: " + text.substr(at + 9);
  }
}

struct Case {
  Arguments arguments;
  std::string expected;
};

TEST(OptionParser, FollowsTheRulesOfTheCommandLine) {
  const Case kCases[] = {
      // forms
      {{}, ""},
      {{"--mix", "a", "--mix=b"}, "--mix=[a] --mix=[b]"},
      {{"--mix=a=b"}, "--mix=[a=b]"},
      {{"--mix="}, "--mix=[]"},
      {{"--mix", ""}, "--mix=[]"},
      {{"--no-report"}, "--no-report=true"},
      {{"--sink", "a", "--sink", "b"}, "--sink=[a] --sink=[b]"},
      // kinds
      {{"--bands", " +128 "}, "--bands=128"},
      {{"--bands", "99999999999999999999"}, "--bands=9223372036854775807"},
      {{"--bands", "1.5"}, "error: --bands takes a whole number, not “1.5”"},
      {{"--tilt", "1e400"}, "--tilt=inf"},
      {{"--tilt", "0x10"}, "error: --tilt takes a number, not “0x10”"},
      {{"--rule", "tail"}, "--rule=[tail]"},
      {{"--rule", "Tail"},
       "error: --rule takes one of energy, sharp, corr, scorr, lsq, tail, not “Tail”"},
      // prefixes: a hidden option counts, an exact name wins
      {{"--any"}, "--any-channels=true"},
      {{"--strict"}, "--strict-inputs=true"},
      {{"--excerpt-l=2"}, "--excerpt-len=2.0"},
      {{"--priority", "x"}, "--priority=[x]"},
      {{"--alloc", "5"}, "error: --alloc could be any of --allocation, --alloc-window"},
      {{"--quiet-gate"}, "--quiet-gate=true"},
      // values that begin with a dash
      {{"--excerpt-start", "-5"}, "--excerpt-start=-5.0"},
      {{"--excerpt-start", "-.5"}, "--excerpt-start=-0.5"},
      {{"--excerpt-start", "-1e-05"}, "--excerpt-start=-1e-05"},
      {{"--excerpt-start", "-inf"}, "--excerpt-start=-inf"},
      {{"--excerpt-start", "-nan"}, "--excerpt-start=nan"},
      {{"--excerpt-start", "-5x"}, "error: --excerpt-start needs a value"},
      {{"--mix", "-"}, "--mix=[-]"},
      {{"--mix", "-a b.wav"}, "--mix=[-a b.wav]"},
      {{"--mix", "-a.wav"}, "error: --mix needs a value"},
      {{"--mix", "--mi=a b"}, "error: --mix needs a value"},
      {{"--mix", "--no-report"}, "error: --mix needs a value"},
      {{"--mix", "-h"}, "error: --mix needs a value"},
      {{"--mix", "--"}, "error: --mix needs a value"},
      {{"--mix=-h"}, "--mix=[-h]"},
      {{"--mix"}, "error: --mix needs a value"},
      // what is nobody's
      {{"stray"}, "error: unknown arguments: stray"},
      {{"--foo=1", "x", "--mix", "a"}, "error: unknown arguments: --foo=1 x"},
      {{"-m", "a"}, "error: unknown arguments: -m a"},
      {{"--", "--help"}, "error: unknown arguments: -- --help"},
      {{"--=5"}, "error: unknown arguments: --=5"},
      {{"-5"}, "error: unknown arguments: -5"},
      {{"--no-report=1"}, "error: --no-report takes no value"},
      {{"--help=1"}, "error: --help takes no value"},
      // help at its turn
      {{"--he"}, "help"},
      {{"--foo", "-h", "--bands", "x"}, "help"},
      {{"--bands", "x", "-h"}, "error: --bands takes a whole number, not “x”"},
      {{"--alloc", "-h"}, "error: --alloc could be any of --allocation, --alloc-window"},
  };
  for (const Case& c : kCases) {
    EXPECT_EQ(outcome(full(), entries_of(option_table()), c.arguments), c.expected)
        << fmt::format("{}", c.arguments);
  }
}

TEST(OptionParser, AsksForWhatIsRequiredBeforeItNamesWhatIsUnknown) {
  const auto entries = entries_of(shipping_option_table());
  EXPECT_EQ(outcome(shipping(), entries, {"--foo"}), "error: missing required: --mix");
  EXPECT_EQ(outcome(shipping(), entries, {"--foo", "--mix", "a"}),
            "error: unknown arguments: --foo");
  EXPECT_EQ(outcome(shipping(), entries, {"-h"}), "help");
  EXPECT_EQ(outcome(shipping(), entries, {"--project", "a", "--mix", "a"}),
            "error: unknown arguments: --project a");
}

TEST(OptionParser, FillsTheFieldOfTheSameName) {
  const auto options = parse_record(full(), option_table(),
                                    {"--mix",
                                     "m",
                                     "--bands",
                                     "32",
                                     "--gain-smooth",
                                     "7",
                                     "--sink",
                                     "a",
                                     "--sink",
                                     "b",
                                     "--low-resolution",
                                     "c",
                                     "--tilt",
                                     "2",
                                     "--quiet-gate-db",
                                     "-3",
                                     "--excerpt-len",
                                     "1",
                                     "--rule",
                                     "lsq",
                                     "--rule",
                                     "corr",
                                     "--suggest-excerpt",
                                     "9",
                                     "--out",
                                     "o",
                                     "--write-null",
                                     "--priority",
                                     "p",
                                     "--project",
                                     "pr",
                                     "--no-rep",
                                     "--gain-lookahead",
                                     "-2",
                                     "--tap-gain",
                                     "joint"});
  ASSERT_TRUE(options);
  EXPECT_EQ(options->mix, "m");
  EXPECT_EQ(options->taps, std::nullopt);
  EXPECT_EQ(options->out, "o");
  EXPECT_EQ(options->project, "pr");
  EXPECT_EQ(options->bands, 32);
  EXPECT_EQ(options->gain_smooth, 7.0);
  EXPECT_EQ(options->gain_lookahead, -2.0);
  EXPECT_EQ(options->tilt, 2.0);
  EXPECT_EQ(options->sharpness, 1.0);
  EXPECT_EQ(options->quiet_gate_db, -3.0);
  EXPECT_EQ(options->rule, "corr");
  EXPECT_EQ(options->tap_gain, "joint");
  EXPECT_EQ(options->excerpt_len, 1.0);
  EXPECT_EQ(options->suggest_excerpt, 9.0);
  EXPECT_TRUE(options->write_null);
  EXPECT_TRUE(options->no_report);
  EXPECT_FALSE(options->progress_json);
  EXPECT_THAT(options->sink, testing::ElementsAre("a", "b"));
  EXPECT_THAT(options->low_resolution, testing::ElementsAre("c"));
  EXPECT_THAT(options->priority, testing::ElementsAre("p"));
}

TEST(OptionTable, EveryOptionHasItsOwnNameAndItsDefaultText) {
  std::set<std::string_view> names;
  for (const auto& entry : entries_of(option_table())) {
    EXPECT_TRUE(names.insert(entry.name).second) << entry.name;
    if (entry.name == "--gain-lookahead") {
      EXPECT_EQ(entry.default_text, "-1.0");
    }
    if (entry.name == "--rule") {
      EXPECT_EQ(entry.default_text, "energy");
    }
    if (entry.name == "--bands") {
      EXPECT_EQ(entry.default_text, "");
    }
    if (!entry.choices.empty()) {
      EXPECT_THAT(entry.choices, testing::Contains(entry.default_text)) << entry.name;
    }
  }
  EXPECT_EQ(names.size(), 39U);
  EXPECT_EQ(entries_of(shipping_option_table()).size(), 9U);
}

TEST(OptionParser, HelpShowsEachOptionOnceAndHidesTheHidden) {
  const std::string help = full().help();
  EXPECT_EQ(help.substr(0, full().usage().size()), full().usage());
  for (const auto& entry : entries_of(option_table())) {
    const std::string line = fmt::format("\n  {}", entry.name);
    const bool shown =
        help.find(line + " ") != std::string::npos || help.find(line + "\n") != std::string::npos;
    EXPECT_EQ(shown, !entry.hidden) << entry.name;
    if (!entry.hidden) {
      EXPECT_NE(help.find(entry.help), std::string::npos) << entry.name;
    }
  }
  EXPECT_NE(help.find("\n  --low-resolution NAME\n"), std::string::npos);
  EXPECT_NE(help.find("\n  --sharpness SHARPNESS\n  --tilt TILT\n"), std::string::npos);
  for (std::size_t begin = 0; begin < full().usage().size();) {
    const auto end = full().usage().find('\n', begin);
    EXPECT_LE(end - begin, 90U);
    begin = end + 1;
  }
  EXPECT_EQ(shipping().usage().substr(0, 36), "usage: VERDEL Engine [-h] --mix MIX ");
}

}  // namespace
}  // namespace verdel
