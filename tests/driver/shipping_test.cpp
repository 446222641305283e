#include "driver/shipping.hpp"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>

namespace verdel {
namespace {

using Arguments = std::vector<std::string>;

CommandLine shipping() {
  return {"VERDEL Engine", entries_of(shipping_option_table())};
}

Arguments handed_on(const Arguments& arguments) {
  return shipping_arguments(*parse_record(shipping(), shipping_option_table(), arguments),
                            shipping());
}

std::string joined(const Arguments& arguments) {
  return fmt::format("{}", fmt::join(arguments, " "));
}

constexpr const char* kProfile =
    "--gain-model single-band --allocation candidate14 --bands 128 --gain-window 30 --gain-smooth "
    "120 --alloc-window 5 --rule energy --tap-gain shared";

TEST(Shipping, HandsOnTheProfileAndWhatWasAsked) {
  EXPECT_EQ(joined(handed_on({"--mix", "a", "--taps", "b", "--out", "c"})),
            fmt::format("--mix a --taps b --out c {}", kProfile));
  EXPECT_EQ(
      joined(handed_on({"--progress-json", "--no-report", "--strict-inputs", "--mix", "a", "--taps",
                        "b", "--out", "c", "--excerpt-len", "0", "--excerpt-start", "-1e-05"})),
      fmt::format("--mix a --taps b --out c {} --excerpt-start -1e-05 --excerpt-len 0.0 "
                  "--strict-inputs --no-report --progress-json",
                  kProfile));
  EXPECT_EQ(joined(handed_on({"--mix", "a", "--suggest-excerpt", "12", "--taps", "b", "--out", "c",
                              "--no-report"})),
            "--mix a --suggest-excerpt 12.0");
}

TEST(Shipping, ARenderNeedsItsFolders) {
  for (const Arguments& arguments :
       {Arguments{"--mix", "a", "--taps", "b"}, Arguments{"--mix", "a", "--out", "b"},
        Arguments{"--mix", "a", "--taps", "", "--out", "b"},
        Arguments{"--mix", "a", "--suggest-excerpt", "-3", "--taps", "b"},
        Arguments{"--mix", "a", "--suggest-excerpt", "nan"}}) {
    try {
      handed_on(arguments);
      ADD_FAILURE() << joined(arguments);
    } catch (const UsageError& error) {
      EXPECT_EQ(std::string(error.what()),
                shipping().usage() +
                    "VERDEL Engine: error: --taps and --out are required for processing");
    }
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
  for (const std::string text : {"-inf", "inf", "-1e-05", "0.1", "5e-324", "-0.0", "1e22"}) {
    const auto options = parse_record(
        full, option_table(),
        handed_on({"--mix", "a", "--taps", "b", "--out", "c", "--excerpt-start=" + text}));
    const auto given =
        parse_record(shipping(), shipping_option_table(), {"--mix=a", "--excerpt-start=" + text});
    EXPECT_EQ(options->excerpt_start, given->excerpt_start) << text;
    EXPECT_EQ(std::signbit(*options->excerpt_start), std::signbit(*given->excerpt_start)) << text;
  }
}

}  // namespace
}  // namespace verdel
