#pragma once

#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "driver/option_table.hpp"

namespace verdel::internal {

/// A command line that cannot be followed. what() is all that the user reads: usage, then one line
/// with the program's name and the message, the last line without its break.
class UsageError : public std::exception {
 public:
  explicit UsageError(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

/// Reads arguments by a table of long options.
///
/// An option is written `--name value` or `--name=value`; a prefix that fits one option alone,
/// hidden ones included, stands for it, and an exact name is never a prefix of another. A
/// single-valued option given twice keeps its last value. Text that begins with "-" is a value only
/// if it is a number, "-" alone, or holds a blank and names no option; any other is an option, so
/// that a forgotten value is noticed.
class CommandLine {
 public:
  CommandLine(std::string program, std::vector<OptionEntry> entries);

  /// Both end in a line break. Help begins with the usage; each help text stands on one line.
  std::string usage() const;
  std::string help() const;

  struct Setting {
    std::size_t option;  ///< index into the table
    OptionValue value;   ///< of the option's kind
  };
  /// What was given, in the order given; nothing if help was asked for. Help counts at its turn:
  /// faults before it win, what stands behind it is not looked at. Unknown options, stray
  /// arguments and missing required options are judged at the end. Throws UsageError.
  std::optional<std::vector<Setting>> parse(const std::vector<std::string>& arguments) const;

  /// Whether the text, standing behind an option, would be taken as that option's value.
  bool reads_as_value(std::string_view text) const;

  [[noreturn]] void fail(const std::string& message) const;

 private:
  std::vector<std::size_t> matches(std::string_view name) const;
  OptionValue convert(const OptionEntry& entry, const std::string& text) const;
  void require(const std::vector<Setting>& settings) const;

  std::string program_;
  std::vector<OptionEntry> entries_;
};

/// The record that the arguments describe; nothing if help was asked for. Throws UsageError.
template <class Record>
std::optional<Record> parse_record(const CommandLine& command_line,
                                   const OptionTable<Record>& table,
                                   const std::vector<std::string>& arguments) {
  const auto settings = command_line.parse(arguments);
  if (!settings) return std::nullopt;
  Record record;
  for (const auto& setting : *settings) assign(record, table[setting.option], setting.value);
  return record;
}

}  // namespace verdel::internal
