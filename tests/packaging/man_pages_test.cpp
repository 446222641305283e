#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <set>

#include "driver/entry.hpp"
#include "driver/option_table.hpp"
#include "support/files.hpp"

namespace verdel::internal {
namespace {

struct Page {
  std::string program;
  std::vector<OptionEntry> options;
};

std::vector<Page> pages() {
  return {{"verdel", entries_of(option_table())},
          {"verdel-engine", entries_of(engine_option_table())},
          {"verdel-verify", entries_of(verify_option_table())}};
}

std::string path_of(const std::string& page) {
  return VERDEL_SOURCE_ROOT "/packaging/man/" + page + ".1";
}

/// The head of an option's entry: its choices, the word for its value, or nothing for a flag.
std::string head_of(const OptionEntry& option) {
  const std::string name = std::string(".It Fl ").append(option.name.substr(1));
  if (option.kind == OptionKind::kFlag) return name;
  if (option.choices.empty()) return name + " Ar [A-Z]+";
  std::string choices;
  for (const auto& choice : option.choices) {
    choices.append(choices.empty() ? " Brq Cm " : " , ").append(choice);
  }
  return name + choices;
}

TEST(ManPages, HaveAnEntryForEachOptionAShellUserSeesAndNameNoOther) {
  for (const Page& page : pages()) {
    const std::string text = testing::bytes_of(path_of(page.program));
    const auto lines = testing::lines_of(text);
    const auto entries_like = [&](const std::string& head) {
      const std::regex wanted(head);
      return std::ranges::count_if(
          lines, [&](const std::string& line) { return std::regex_match(line, wanted); });
    };
    std::set<std::string> known = {"help", "version"};
    for (const OptionEntry& option : page.options) {
      EXPECT_EQ(entries_like(head_of(option)), option.hidden ? 0 : 1)
          << page.program << option.name;
      if (!option.hidden) known.emplace(option.name.substr(2));
    }
    for (const char* head : {".It Fl h , Fl -help", ".It Fl -version"}) {
      EXPECT_EQ(entries_like(head), 1) << page.program;
    }
    for (const int status : {0, kExitFailure, kExitUsage, kExitCancelled}) {
      EXPECT_EQ(entries_like(".It " + std::to_string(status)), 1) << page.program << status;
    }
    const std::regex option("Fl -([-a-z]+)|[^-]--([-a-z]+)");
    for (std::sregex_iterator found(text.begin(), text.end(), option), end; found != end; ++found) {
      EXPECT_TRUE(known.contains(found->str(1) + found->str(2))) << page.program << found->str();
    }
  }
}

TEST(ManPages, AreCleanForTheFormatter) {
  if (std::system("command -v groff >/dev/null") != 0) GTEST_SKIP() << "NOT TESTED: no groff here";
  for (const char* page : {"verdel", "verdel-engine", "verdel-verify", "verdel-song"}) {
    const std::string command = "groff -mandoc -ww -z -Tutf8 '" + path_of(page) + "' 2>&1";
    EXPECT_EQ(std::system(("test -z \"$(" + command + ")\"").c_str()), 0) << command;
  }
}

}  // namespace
}  // namespace verdel::internal
