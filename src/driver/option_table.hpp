#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "driver/options.hpp"

/// The options of the command lines as data. Parser, usage and help are made from these tables,
/// and so is whatever else describes the command lines.
namespace verdel::internal {

/// A flag takes no value; a list takes one each time it is used and keeps them all.
enum class OptionKind { kFlag, kText, kWhole, kReal, kList };

/// Which names of the file system an option takes, for those who help with typing.
enum class PathKind { kNone, kFile, kFolder };

using OptionValue = std::variant<bool, std::int64_t, double, std::string>;

/// One option, free of the record that it fills.
struct OptionEntry {
  std::string_view name;  ///< with its dashes
  OptionKind kind;
  std::vector<std::string_view> choices;  ///< empty: any text
  std::string default_text;               ///< empty: none
  std::string metavar;                    ///< what help calls its value; empty for a flag
  bool hidden;                            ///< works, but help does not show it
  bool required;
  std::string_view help;
  PathKind path = PathKind::kNone;
};

/// Where an option's value goes; the member's type decides its kind, its initial value the default.
template <class Record>
using OptionField =
    std::variant<bool Record::*, std::string Record::*, std::optional<std::string> Record::*,
                 std::optional<std::int64_t> Record::*, double Record::*,
                 std::optional<double> Record::*, std::vector<std::string> Record::*>;

template <class Record>
struct Option {
  std::string_view name;
  OptionField<Record> field;
  std::string_view help = {};
  std::string_view choices = {};  ///< joined by commas; empty: any text
  std::string_view metavar = {};  ///< empty: made from the name
  bool hidden = false;
  bool required = false;
  PathKind path = PathKind::kNone;
};

template <class Record>
using OptionTable = std::vector<Option<Record>>;

const OptionTable<Options>& option_table();
const OptionTable<EngineOptions>& engine_option_table();
const OptionTable<VerifyOptions>& verify_option_table();
const OptionTable<ChainOptions>& chain_option_table();
const OptionTable<DeliverOptions>& deliver_option_table();
const OptionTable<CheckOptions>& check_option_table();

/// The same options as plain entries, in the same order.
std::vector<OptionEntry> entries_of(const OptionTable<Options>& table);
std::vector<OptionEntry> entries_of(const OptionTable<EngineOptions>& table);
std::vector<OptionEntry> entries_of(const OptionTable<VerifyOptions>& table);
std::vector<OptionEntry> entries_of(const OptionTable<ChainOptions>& table);
std::vector<OptionEntry> entries_of(const OptionTable<DeliverOptions>& table);
std::vector<OptionEntry> entries_of(const OptionTable<CheckOptions>& table);

/// Stores a value of the option's kind in its field.
template <class Record>
void assign(Record& record, const Option<Record>& option, const OptionValue& value) {
  std::visit(
      [&](auto field) {
        auto& target = record.*field;
        using Target = std::remove_reference_t<decltype(target)>;
        if constexpr (std::is_same_v<Target, bool>) {
          target = std::get<bool>(value);
        } else if constexpr (std::is_same_v<Target, std::optional<std::int64_t>>) {
          target = std::get<std::int64_t>(value);
        } else if constexpr (std::is_same_v<Target, double> ||
                             std::is_same_v<Target, std::optional<double>>) {
          target = std::get<double>(value);
        } else if constexpr (std::is_same_v<Target, std::vector<std::string>>) {
          target.push_back(std::get<std::string>(value));
        } else {
          target = std::get<std::string>(value);
        }
      },
      option.field);
}

}  // namespace verdel::internal
