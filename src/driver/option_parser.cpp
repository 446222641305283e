#include "driver/option_parser.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kUsageWidth = 80;
constexpr std::string_view kHelpName = "--help";
constexpr std::string_view kHelpLetter = "-h";
constexpr std::string_view kDashes = "--";

/// "--name=value" in its two parts; without "=" there is no value.
struct SplitArgument {
  std::string_view name;
  std::optional<std::string> value;
};

SplitArgument split(std::string_view text) {
  const auto equals = text.find('=');
  if (equals == std::string_view::npos) return {text, std::nullopt};
  return {text.substr(0, equals), std::string(text.substr(equals + 1))};
}

/// "--name VALUE", "--name {a,b}", or "--name" alone for a flag.
std::string synopsis(const OptionEntry& entry) {
  if (entry.kind == OptionKind::kFlag) return std::string(entry.name);
  if (entry.choices.empty()) return fmt::format("{} {}", entry.name, entry.metavar);
  return fmt::format("{} {{{}}}", entry.name, fmt::join(entry.choices, ","));
}

}  // namespace

CommandLine::CommandLine(std::string program, std::vector<OptionEntry> entries)
    : program_(std::move(program)), entries_(std::move(entries)) {
  // Help matches by prefix like any other option, so it stands in the table, behind the rest.
  entries_.push_back({.name = kHelpName,
                      .kind = OptionKind::kFlag,
                      .choices = {},
                      .default_text = {},
                      .metavar = {},
                      .hidden = true,
                      .required = false,
                      .help = "print this help and end"});
}

std::string CommandLine::usage() const {
  const std::string begin = fmt::format("usage: {} ", program_);
  std::string text = begin + fmt::format("[{}]", kHelpLetter);
  std::size_t column = text.size();
  for (const OptionEntry& entry : entries_) {
    if (entry.hidden) continue;
    const std::string piece =
        entry.required ? synopsis(entry) : fmt::format("[{}]", synopsis(entry));
    if (column + 1 + piece.size() > kUsageWidth) {
      text += '\n';
      text.append(begin.size(), ' ');
      column = begin.size();
    } else {
      text += ' ';
      ++column;
    }
    text += piece;
    column += piece.size();
  }
  return text + "\n";
}

std::string CommandLine::help() const {
  std::string text = usage() + "\noptions:\n";
  const auto add = [&](std::string_view option, std::string_view help) {
    text += fmt::format("  {}\n", option);
    if (!help.empty()) text += fmt::format("      {}\n", help);
  };
  add(fmt::format("{}, {}", kHelpLetter, kHelpName), entries_.back().help);
  for (const OptionEntry& entry : entries_) {
    if (!entry.hidden) add(synopsis(entry), entry.help);
  }
  return text;
}

void CommandLine::fail(const std::string& message) const {
  throw UsageError(fmt::format("{}{}: error: {}", usage(), program_, printable(message)));
}

std::vector<std::size_t> CommandLine::matches(std::string_view name) const {
  if (name == kHelpLetter) return {entries_.size() - 1};
  std::vector<std::size_t> found;
  if (name.size() <= kDashes.size() || !name.starts_with(kDashes)) return found;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    if (entries_[i].name == name) return {i};
    if (entries_[i].name.starts_with(name)) found.push_back(i);
  }
  return found;
}

bool CommandLine::reads_as_value(std::string_view text) const {
  if (!text.starts_with('-') || text == "-") return true;
  if (!matches(split(text).name).empty()) return false;
  return parse_float64(text).has_value() || text.find(' ') != std::string_view::npos;
}

OptionValue CommandLine::convert(const OptionEntry& entry, const std::string& text) const {
  switch (entry.kind) {
    case OptionKind::kWhole:
      if (const auto value = parse_whole(text)) return *value;
      fail(fmt::format("{} takes a whole number, not “{}”", entry.name, text));
    case OptionKind::kReal:
      if (const auto value = parse_float64(text)) return *value;
      fail(fmt::format("{} takes a number, not “{}”", entry.name, text));
    default:
      break;
  }
  if (!entry.choices.empty() && std::ranges::find(entry.choices, text) == entry.choices.end()) {
    fail(fmt::format("{} takes one of {}, not “{}”", entry.name, fmt::join(entry.choices, ", "),
                     text));
  }
  return text;
}

std::optional<std::vector<CommandLine::Setting>> CommandLine::parse(
    const std::vector<std::string>& arguments) const {
  std::vector<Setting> settings;
  std::vector<std::string> strays;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& text = arguments[i];
    if (text == kDashes) {
      strays.insert(strays.end(), arguments.begin() + static_cast<std::ptrdiff_t>(i),
                    arguments.end());
      break;
    }
    auto [name, value] = split(text);
    const auto found = matches(name);
    if (found.empty()) {
      strays.push_back(text);
      continue;
    }
    if (found.size() > 1) {
      std::vector<std::string_view> names;
      for (const std::size_t index : found) names.push_back(entries_[index].name);
      fail(fmt::format("{} could be any of {}", name, fmt::join(names, ", ")));
    }
    const OptionEntry& entry = entries_[found.front()];
    if (entry.kind == OptionKind::kFlag) {
      if (value) fail(fmt::format("{} takes no value", entry.name));
      if (entry.name == kHelpName) return std::nullopt;
      settings.push_back({found.front(), true});
      continue;
    }
    if (!value) {
      if (i + 1 == arguments.size() || !reads_as_value(arguments[i + 1])) {
        fail(fmt::format("{} needs a value", entry.name));
      }
      value = arguments[++i];
    }
    settings.push_back({found.front(), convert(entry, *value)});
  }
  require(settings);
  if (!strays.empty()) fail(fmt::format("unknown arguments: {}", fmt::join(strays, " ")));
  return settings;
}

void CommandLine::require(const std::vector<Setting>& settings) const {
  std::vector<std::string_view> missing;
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    const bool given =
        std::ranges::any_of(settings, [i](const Setting& setting) { return setting.option == i; });
    if (entries_[i].required && !given) missing.push_back(entries_[i].name);
  }
  if (!missing.empty()) fail(fmt::format("missing required: {}", fmt::join(missing, ", ")));
}

}  // namespace verdel::internal
