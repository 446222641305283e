#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

/// A command line whose last word ends in a press of TAB, and what the last word is then. Only what
/// has one continuation is here: what a shell makes of several is its own affair.
struct Press {
  const char *line, *word;
};
constexpr Press kPresses[] = {
    {"verdel --any", "--any-channels"},
    {"verdel --mix=My", "--mix=My mix.wav"},
    {"verdel --out=sub", "--out=subfolder"},  // and no file
    {"verdel --bands=My", "--bands=My"},
    {"verdel --rule=sc", "--rule=scorr"},
    {"verdel --rule sh", "sharp"},
    {"verdel --strict", "--strict"},  // hidden
    {"verdel --vers", "--version"},
    {"verdel --no-report --vers", "--vers"},
    {"verdel-engine --strict", "--strict-inputs"},
    {"verdel-engine --gain-w", "--gain-w"},
    {"verdel-verify --stems=sub", "--stems=subfolder"},
};

/// A shell's own way to press TAB. Reads presses from "presses" and leaves the words in "words";
/// $COMPLETIONS is the folder.
struct Shell {
  const char *name, *script;
};
constexpr Shell kShells[] = {
    {"bash", R"(
{
  echo 'for file in "$COMPLETIONS"/bash/*; do . "$file"; done'
  echo 'report() { printf "%s\n" "${!#}" >>words; }'
  echo 'verdel() { report "$@"; }; verdel-engine() { report "$@"; }; verdel-verify() { report "$@"; }'
  while read -r line; do printf '%s\t\n' "$line"; done <presses
} | bash --norc --noprofile -i >/dev/null 2>&1
)"},
    {"zsh", R"(
zmodload zsh/zpty
zpty terminal zsh -f -i
zpty -w terminal 'PS1=; TERM=dumb; fpath=($COMPLETIONS/zsh $fpath)'
zpty -w terminal 'autoload -U compinit; compinit -D -u'
zpty -w terminal 'report() { print -r -- "${@[-1]}" >>words }'
zpty -w terminal 'for name in verdel{,-engine,-verify}; do functions[$name]="report \"\$@\""; done'
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
  for (const Shell& shell : kShells) {
    const std::string name = shell.name;
    if (std::system(("command -v " + name + " >/dev/null").c_str()) != 0) {
      std::printf("NOT TESTED: no %s here\n", shell.name);
      continue;
    }
    const testing::TemporaryFolder folder;
    testing::write_bytes(folder.path("My mix.wav"), "");
    testing::write_bytes(folder.path("subject.wav"), "");
    std::filesystem::create_directory(folder.path("subfolder"));
    testing::write_bytes(folder.path("script"), shell.script);
    std::string presses;
    for (const Press& press : kPresses) presses.append(press.line).append("\n");
    testing::write_bytes(folder.path("presses"), presses);
    const std::string command = "cd '" + folder.path() + "' && COMPLETIONS='" +
                                VERDEL_PROGRAM_FOLDER "/packaging/completions' HOME=. " + name;
    ASSERT_NE(std::system((command + " ./script").c_str()), -1);
    auto words = testing::lines_of(testing::bytes_of(folder.path("words")));
    words.resize(std::size(kPresses));
    for (std::size_t i = 0; i < words.size(); ++i) {
      if (words[i].ends_with('/')) words[i].pop_back();
      EXPECT_EQ(words[i], kPresses[i].word) << name << ": " << kPresses[i].line;
    }
  }
}

}  // namespace
}  // namespace verdel::internal
