#include <fmt/format.h>
#include <gtest/gtest.h>

#include "driver/engine_arguments.hpp"
#include "driver/option_rules.hpp"
#include "support/files.hpp"

namespace verdel::internal {
namespace {

using Words = std::vector<std::string>;

// A program, its arguments behind a bar each, and what becomes of them: settings in order, words
// that are handed on, or the message of the failure.
constexpr const char* kCases = R"(
# forms, kinds, prefixes (hidden options count, an exact name wins), values that begin with a dash
verdel|--mix|a|--mix=b=c|--out||--bands| +128 |--any => --mix a --mix b=c --out  --bands 128 --any-channels true
verdel|--excerpt-l=-2|--excerpt-start|-.5|--tilt|-1e-05|--tail-h|-nan => --excerpt-len -2 --excerpt-start -0.5 --tilt -1e-05 --tail-hold nan
verdel|--mix|-|--mix|-a b.wav|--mix=-h|--rule=energy => --mix - --mix -a b.wav --mix -h --rule energy
verdel|--excerpt-start|-5x => --excerpt-start needs a value
verdel|--mix|-a.wav => --mix needs a value
verdel|--mix|--mi=a b => --mix needs a value
verdel|--mix|-- => --mix needs a value
verdel|--mix => --mix needs a value
verdel|--bands|1.5 => --bands takes a whole number, not “1.5”
verdel|--tilt|0x10 => --tilt takes a number, not “0x10”
verdel|--rule|Tail => --rule takes one of energy, sharp, corr, scorr, lsq, tail, not “Tail”
verdel|--alloc|-h => --alloc could be any of --allocation, --alloc-window
verdel|--no-report=1 => --no-report takes no value
# what is nobody's is told at the end, help at its turn
verdel|x|--foo=1|-m|--mix|a|--=5|--|-h => unknown arguments: x --foo=1 -m --=5 -- -h
verdel|--foo|-h|--bands|x => help
verdel|--bands|x|-h => --bands takes a whole number, not “x”
# the first rule that fires; bands and smoothing where nothing is asked for
verdel|--bands|1|--rule|tail => --bands must be at least2
verdel|--bands|99999999999999999999|--rule|tail => single-band allocation requires --bands32 or128
verdel => 128 120
verdel|--tap-gain|per|--stereo-link|max|--band-couple|nan|--gain-attack|5|--rule|tail|--quiet-gate|--priority|a|--alloc-window|0 => single-band mode does not support --tap-gain, --stereo-link, --band-couple, gain ballistics, --rule, --quiet-gate, --priority/--sink
verdel|--sink| => single-band mode does not support --priority/--sink
verdel|--gain-lookahead|0 => single-band mode does not support gain ballistics
verdel|--gain-release|nan|--allocation|candidate14|--low|x => single-band mode does not support gain ballistics
verdel|--allocation|candidate14|--low|x|--gain-window|0 => candidate14 allocation does not use manual low-resolution tracks
verdel|--gain-smooth|0|--gain-attack|-0.0|--bands|32|--low|x|--low|y|--tail-hold|inf => --gain-smooth 0 --gain-attack -0 --bands 32 --low-resolution x --low-resolution y --tail-hold inf
verdel|--gain-smooth|-1 => single-band timing values must be finite and nonnegative, with positive windows
verdel|--gain-smooth|nan => single-band timing values must be finite and nonnegative, with positive windows
verdel|--gain-window|0 => single-band timing values must be finite and nonnegative, with positive windows
verdel|--gain-window|inf => single-band timing values must be finite and nonnegative, with positive windows
verdel|--alloc-window|0 => single-band timing values must be finite and nonnegative, with positive windows
verdel|--alloc-window|-inf => single-band timing values must be finite and nonnegative, with positive windows
# the engine's options, and the profile that it adds
engine|--foo => missing required: --mix
engine|--project|a|--mix|a => unknown arguments: --project a
engine|--mix|a|--out|b => --taps and --out are required for processing
engine|--mix|a|--taps|b|--out| => --taps and --out are required for processing
engine|--mix|a|--taps|b|--suggest-excerpt|-3 => --taps and --out are required for processing
engine|--mix|a|--taps|b|--out|c|--no-report|--suggest-excerpt|12 => --mix a --suggest-excerpt 12.0
engine|--out=-|--taps=-a b|--mix=--mix=a b => --mix=--mix=a b --taps -a b --out - --gain-model single-band --allocation candidate14 --bands 128 --gain-window 30 --gain-smooth 120 --alloc-window 5 --rule energy --tap-gain shared
engine|--progress-json|--no-report|--strict-inputs|--excerpt-len|0|--excerpt-start|-5e-324|--mix=-h|--taps=b|--out=-- => --mix=-h --taps b --out=-- --gain-model single-band --allocation candidate14 --bands 128 --gain-window 30 --gain-smooth 120 --alloc-window 5 --rule energy --tap-gain shared --excerpt-start -5e-324 --excerpt-len 0.0 --strict-inputs --no-report --progress-json
)";
std::string settings_of(const CommandLine& verdel, const Words& arguments) {
  const auto settings = verdel.parse(arguments);
  if (!settings) return "help";
  Options options = *parse_record(verdel, option_table(), arguments);
  apply_option_rules(options, verdel);
  if (settings->empty()) return fmt::format("{} {}", *options.bands, *options.gain_smooth);
  Words words;
  for (const auto& [option, value] : *settings) {
    words.emplace_back(option_table()[option].name);
    std::visit([&](const auto& any) { words.push_back(fmt::format("{}", any)); }, value);
  }
  return fmt::format("{}", fmt::join(words, " "));
}

std::string handed_on(const CommandLine& engine, const Words& arguments) {
  const auto options = parse_record(engine, engine_option_table(), arguments);
  return fmt::format("{}", fmt::join(engine_arguments(*options, engine), " "));
}

TEST(Options, AreFollowedOrRefusedInTheirWords) {
  for (const std::string& line : testing::lines_of(kCases)) {
    if (line.empty() || line.starts_with("#")) continue;
    const std::size_t arrow = line.find(" => ");
    Words words = testing::parts_of(line.substr(0, arrow), '|');
    const bool is_verdel = words.front() == "verdel";
    const CommandLine program(
        words.front(), is_verdel ? entries_of(option_table()) : entries_of(engine_option_table()));
    words.erase(words.begin());
    std::string outcome;
    const std::string failure = testing::failure_of<UsageError>(
        [&] { outcome = (is_verdel ? settings_of : handed_on)(program, words); });
    const std::string expected = line.substr(arrow + 4);
    const std::string error = is_verdel ? "verdel: error: " : "engine: error: ";
    EXPECT_EQ(failure.empty() ? outcome : failure,
              failure.empty() ? expected : program.usage() + error + expected);
  }
}

}  // namespace
}  // namespace verdel::internal
