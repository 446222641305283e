#include <fmt/format.h>
#include <gtest/gtest.h>

#include "driver/engine_arguments.hpp"
#include "driver/option_rules.hpp"
#include "support/files.hpp"

namespace verdel::internal {
namespace {

using Words = std::vector<std::string>;

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
  for (const std::string& line : testing::cases_of(VERDEL_TEST_DATA "/cases/options.txt")) {
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
