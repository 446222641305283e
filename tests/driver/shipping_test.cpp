#include "driver/engine_arguments.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <cmath>

#include "support/files.hpp"

namespace verdel::internal {
namespace {

using Arguments = std::vector<std::string>;

const CommandLine kShipping("VERDEL Engine", entries_of(engine_option_table()));

Arguments handed_on(const Arguments& arguments) {
  return engine_arguments(*parse_record(kShipping, engine_option_table(), arguments), kShipping);
}

TEST(Shipping, HandsOnTheProfileAndWhatWasAsked) {
  const std::string profile =
      "--mix a --taps b --out c --gain-model single-band --allocation candidate14 --bands 128 "
      "--gain-window 30 --gain-smooth 120 --alloc-window 5 --rule energy --tap-gain shared";
  const std::pair<Arguments, std::string> kCases[] = {
      {{"--out", "c"}, profile},
      {{"--progress-json", "--no-report", "--strict-inputs", "--out", "c", "--excerpt-len", "0",
        "--excerpt-start", "-1e-05"},
       profile +
           " --excerpt-start -1e-05 --excerpt-len 0.0 --strict-inputs --no-report --progress-json"},
      {{"--suggest-excerpt", "12", "--out", "c", "--no-report"}, "--mix a --suggest-excerpt 12.0"}};
  for (auto [arguments, expected] : kCases) {
    arguments.insert(arguments.end(), {"--mix", "a", "--taps", "b"});
    EXPECT_EQ(fmt::format("{}", fmt::join(handed_on(arguments), " ")), expected);
  }
}

TEST(Shipping, ARenderNeedsItsFolders) {
  for (const Arguments& arguments :
       {Arguments{"--mix", "a", "--taps", "b"}, Arguments{"--mix", "a", "--out", "b"},
        Arguments{"--mix", "a", "--taps", "", "--out", "b"},
        Arguments{"--mix", "a", "--suggest-excerpt", "-3", "--taps", "b"},
        Arguments{"--mix", "a", "--suggest-excerpt", "nan"}}) {
    EXPECT_EQ(
        testing::failure_of<UsageError>([&] { handed_on(arguments); }),
        kShipping.usage() + "VERDEL Engine: error: --taps and --out are required for processing");
  }
}

TEST(Shipping, EveryValueArrivesAsItWasGiven) {
  const CommandLine full("verdel", entries_of(option_table()));
  for (const std::string text :
       {"", "-", "-h", "--mix", "-5", "-a b", "--no-report", "a=b", "--", "--mix=a b", "Bässe"}) {
    const auto options = parse_record(full, option_table(),
                                      handed_on({"--mix=" + text, "--taps=x" + text, "--out=y"}));
    EXPECT_EQ(options->mix, text);
    EXPECT_EQ(options->taps, "x" + text);
  }
  for (const double seconds : {-HUGE_VAL, HUGE_VAL, -1e-05, 0.1, 5e-324, -0.0, 1e22}) {
    const auto start = fmt::format("--excerpt-start={}", seconds);
    const auto options =
        parse_record(full, option_table(), handed_on({"--mix=a", "--taps=b", "--out=c", start}));
    EXPECT_EQ(options->excerpt_start, seconds);
    EXPECT_EQ(std::signbit(*options->excerpt_start), std::signbit(seconds));
  }
}

}  // namespace
}  // namespace verdel::internal
