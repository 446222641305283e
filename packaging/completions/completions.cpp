#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "driver/option_table.hpp"

// Writes the completions of the command lines for bash, zsh and fish: `verdel_completions FOLDER`
// fills FOLDER/bash, FOLDER/zsh and FOLDER/fish.
namespace verdel::internal {
namespace {

struct Program {
  std::string name;
  std::vector<OptionEntry> options;  ///< those that a user may see, help included
};

/// What a menu shows behind an option: its help up to the end of the first sentence.
std::string summary(const OptionEntry& option) {
  return std::string(option.help.substr(0, option.help.find(". ")));
}

std::vector<OptionEntry> shown(std::vector<OptionEntry> options) {
  // The engine's table has no help texts; the full one explains the same options.
  const auto full = entries_of(option_table());
  for (OptionEntry& option : options) {
    const auto same = std::ranges::find(full, option.name, &OptionEntry::name);
    if (option.help.empty() && same != full.end()) option.help = same->help;
    if (option.help.ends_with('.')) option.help.remove_suffix(1);
  }
  std::erase_if(options, [](const OptionEntry& option) { return option.hidden; });
  options.push_back({.name = "--help",
                     .kind = OptionKind::kFlag,
                     .choices = {},
                     .default_text = {},
                     .metavar = {},
                     .hidden = false,
                     .required = false,
                     .help = "print help and end"});
  return options;
}

/// Text in single quotes; inside them, `escaped` letters get a backslash.
std::string quoted(std::string_view text, std::string_view quote_inside,
                   std::string_view escaped = "") {
  std::string out = "'";
  for (const char c : text) {
    if (escaped.find(c) != std::string_view::npos) out += '\\';
    c == '\'' ? out += quote_inside : out += c;
  }
  return out + "'";
}

std::string function_name(const std::string& program) {
  std::string name = "_" + program;
  std::ranges::replace(name, '-', '_');
  return name;
}

// Bash cuts words at "=", so that an option and its value are two words in both ways of writing.
std::string bash(const Program& program) {
  std::string names, cases;
  for (const OptionEntry& option : program.options) {
    names.append(option.name).append(" ");
    if (option.kind == OptionKind::kFlag) continue;
    cases += fmt::format("    {}) words='{}'{} ;;\n", option.name, fmt::join(option.choices, " "),
                         option.path == PathKind::kFile     ? " && compopt -o default 2>/dev/null"
                         : option.path == PathKind::kFolder ? " && compopt -o dirnames 2>/dev/null"
                                                            : "");
  }
  return fmt::format(R"({0}() {{
  local word=$2 option=$3 words='{1}' match
  [[ $option == = ]] && option=${{COMP_WORDS[COMP_CWORD - 2]}}
  ((COMP_CWORD == 1)) && words+=--version
  COMPREPLY=()
  compopt +o default 2>/dev/null
  case $option in
{2}  esac
  while IFS= read -r match; do
    COMPREPLY+=("$match")
  done < <(compgen -W "$words" -- "$word")
}}
complete -o default -F {0} {3}
)",
                     function_name(program.name), names, cases, program.name);
}

std::string zsh(const Program& program) {
  std::string text = fmt::format(
      "#compdef {}\nlocal -a version\n"
      "((CURRENT == 2)) && version=('(- *)--version[print the version and end]')\n"
      "_arguments \"${{version[@]}}\" '(- *)-h[print help and end]'",
      program.name);
  for (const OptionEntry& option : program.options) {
    const bool flag = option.kind == OptionKind::kFlag;
    std::string rule = option.name == "--help"            ? "(- *)"
                       : option.kind == OptionKind::kList ? "*"
                                                          : "";
    rule.append(option.name).append(flag ? "" : "=");
    if (!option.help.empty()) rule += fmt::format("[{}]", summary(option));
    std::string value;
    if (option.path == PathKind::kFile) {
      value = ":file:_files";
    } else if (option.path == PathKind::kFolder) {
      value = ":folder:_files -/";
    } else if (!option.choices.empty()) {
      value = fmt::format(":choice:({})", fmt::join(option.choices, " "));
    } else if (!flag) {
      value = fmt::format(":{}: ", option.metavar);
    }
    text += " \\\n  " + quoted(rule + value, "'\\''");
  }
  return text + "\n";
}

std::string fish(const Program& program) {
  const std::string command = fmt::format("complete -c {}", program.name);
  std::string text = fmt::format(
      "{0} -f\n{0} -s h -d 'print help and end'\n"
      "{0} -l version -n 'test (count (commandline -opc)) -eq 1' -d 'print the version and end'\n",
      command);
  for (const OptionEntry& option : program.options) {
    text += fmt::format("{} -l {}", command, option.name.substr(2));
    if (option.path == PathKind::kFile) {
      text += " -r -F";
    } else if (option.path == PathKind::kFolder) {
      text += " -x -a '(__fish_complete_directories)'";
    } else if (!option.choices.empty()) {
      text += fmt::format(" -x -a '{}'", fmt::join(option.choices, " "));
    } else if (option.kind != OptionKind::kFlag) {
      text += " -x";
    }
    if (!option.help.empty()) text += " -d " + quoted(summary(option), "\\'", "\\");
    text += "\n";
  }
  return text;
}

void write(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path.string());
}

void write_all(const std::filesystem::path& folder) {
  for (const Program& program : {Program{"verdel", shown(entries_of(option_table()))},
                                 {"verdel-engine", shown(entries_of(engine_option_table()))},
                                 {"verdel-chain", shown(entries_of(chain_option_table()))},
                                 {"verdel-deliver", shown(entries_of(deliver_option_table()))},
                                 {"verdel-check", shown(entries_of(check_option_table()))},
                                 {"verdel-verify", shown(entries_of(verify_option_table()))}}) {
    write(folder / "bash" / program.name, bash(program));
    write(folder / "zsh" / ("_" + program.name), zsh(program));
    write(folder / "fish" / (program.name + ".fish"), fish(program));
  }
}

}  // namespace
}  // namespace verdel::internal

int main(int argc, char** argv) try {
  if (argc != 2) throw std::runtime_error("usage: verdel_completions FOLDER");
  verdel::internal::write_all(argv[1]);
  return 0;
} catch (const std::exception& failure) {
  std::fprintf(stderr, "%s\n", failure.what());
  return 1;
}
