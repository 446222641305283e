#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <set>

#include "driver/option_table.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

// A command line whose last word ends in a press of TAB, and what the last word is then. Only what
// has one continuation is here: what a shell makes of several is its own affair.
const std::vector<std::pair<std::string, std::string>> kPresses = {
    {"verdel --mix=My", "--mix=My mix.wav"},
    {"verdel --out=sub", "--out=subfolder"},  // and no file
    {"verdel --rule sh", "sharp"},
    {"verdel --strict", "--strict"},  // hidden
    {"verdel --vers", "--version"},
    {"verdel --no-report --vers", "--vers"},
    {"verdel-engine --strict", "--strict-inputs"},
    {"verdel-verify --stems=sub", "--stems=subfolder"},
    {"verdel-chain --picture=My", "--picture=My mix.wav"},
    {"verdel-deliver --format fl", "flac"},
    {"verdel-check --taps=sub", "--taps=subfolder"},
};

/// A shell's own way to press TAB. Reads presses from "presses" and leaves the words in "words";
/// $COMPLETIONS is the folder.
const std::vector<std::pair<std::string, std::string>> kShells = {
    {"bash", R"(
{
  echo 'for file in "$COMPLETIONS"/bash/*; do . "$file"; done'
  echo 'report() { printf "%s\n" "${!#}" >>words; }'
  echo 'verdel() { report "$@"; }; verdel-engine() { report "$@"; }; verdel-verify() { report "$@"; }; verdel-chain() { report "$@"; }; verdel-deliver() { report "$@"; }; verdel-check() { report "$@"; }'
  while read -r line; do printf '%s\t\n' "$line"; done <presses
} | bash --norc --noprofile -i >/dev/null 2>&1
)"},
    {"zsh", R"(
zmodload zsh/zpty
zpty terminal zsh -f -i
zpty -w terminal 'PS1=; TERM=dumb; fpath=($COMPLETIONS/zsh $fpath)'
zpty -w terminal 'autoload -U compinit; compinit -D -u'
zpty -w terminal 'report() { print -r -- "${@[-1]}" >>words }'
zpty -w terminal 'for name in verdel{,-engine,-check,-chain,-deliver,-verify}; do functions[$name]="report \"\$@\""; done'
while read -r line; do zpty -w terminal "$line"$'\t'; done <presses
zpty -w terminal exit
while zpty -r terminal line; do :; done
)"},
    {"fish", R"(
for file in $COMPLETIONS/fish/*; source $file; end
while read -l line
  set -l found (complete -C $line | string replace -r '\t.*' '')
  test (count $found) -eq 0; and set found (string split -r -m 1 ' ' $line)[2]
  string join -- ' or ' $found >>words
end <presses
)"},
};

TEST(Completions, KnowOptionsChoicesAndNamesInEachShell) {
  for (const auto& [shell, script] : kShells) {
    if (std::system(("command -v " + shell + " >/dev/null").c_str()) != 0) {
      std::printf("NOT TESTED: no %s here\n", shell.c_str());
      continue;
    }
    const testing::TemporaryFolder folder;
    for (const char* name : {"My mix.wav", "subject.wav", "subfolder/"}) folder.touch(name);
    testing::write_bytes(folder.path("script"), script);
    std::string presses;
    for (const auto& [line, word] : kPresses) presses += line + "\n";
    testing::write_bytes(folder.path("presses"), presses);
    const std::string command = "cd '" + folder.path() + "' && HOME=. COMPLETIONS='" +
                                VERDEL_PROGRAM_FOLDER "/packaging/completions' " + shell;
    ASSERT_NE(std::system((command + " ./script").c_str()), -1);
    auto words = testing::lines_of(testing::bytes_of(folder.path("words")));
    words.resize(kPresses.size());
    for (std::size_t i = 0; i < words.size(); ++i) {
      EXPECT_EQ(words[i].substr(0, words[i].find_last_not_of('/') + 1), kPresses[i].second)
          << shell << ": " << kPresses[i].first;
    }
  }
}

/// The head of an option's entry: its choices, the word for its value, or nothing for a flag.
std::string head_of(const OptionEntry& option) {
  const auto head = fmt::format("Fl {}", option.name.substr(1));
  if (option.kind == OptionKind::kFlag) return head;
  if (option.choices.empty()) return head + " Ar [A-Z]+";
  return fmt::format("{} Brq Cm {}", head, fmt::join(option.choices, " , "));
}

TEST(ManPages, HaveAnEntryForEachOptionAShellUserSeesAndNameNoOther) {
  const std::pair<std::string, std::vector<OptionEntry>> kPages[] = {
      {"verdel", entries_of(option_table())},
      {"verdel-engine", entries_of(engine_option_table())},
      {"verdel-chain", entries_of(chain_option_table())},
      {"verdel-deliver", entries_of(deliver_option_table())},
      {"verdel-check", entries_of(check_option_table())},
      {"verdel-verify", entries_of(verify_option_table())}};
  for (const auto& [page, options] : kPages) {
    const auto text = testing::bytes_of(VERDEL_SOURCE_ROOT "/packaging/man/" + page + ".1");
    std::multiset<std::string> heads = {"Fl h , Fl -help", "Fl -version", "0", "1", "2", "130"};
    std::set<std::string> known = {"help", "version"};
    for (const OptionEntry& option : options) {
      if (option.hidden) continue;
      heads.insert(head_of(option));
      known.emplace(option.name.substr(2));
    }
    if (page == std::string("verdel-check")) heads.insert("3");
    for (const std::string& head : heads) {
      const std::regex entry("\n.It " + head + "\n");
      const std::sregex_iterator found(text.begin(), text.end(), entry), end;
      EXPECT_EQ(std::distance(found, end), 1) << page << head;
    }
    const std::regex option("Fl -([-a-z]+)|[^-]--([-a-z]+)");
    for (std::sregex_iterator found(text.begin(), text.end(), option), end; found != end; ++found) {
      EXPECT_TRUE(known.contains(found->str(1) + found->str(2))) << page << found->str();
    }
  }
}

TEST(ManPages, AreCleanForTheFormatter) {
  EXPECT_EQ(0, std::system("command -v groff >/dev/null || { echo NOT TESTED: no groff; exit 0; }\n"
                           "cd '" VERDEL_SOURCE_ROOT "/packaging/man'\n"
                           "test -z \"$(groff -mandoc -ww -z -Tutf8 *.1 2>&1)\""));
}

}  // namespace
}  // namespace verdel::internal
