#include <fmt/format.h>

#include <bit>
#include <cmath>
#include <map>
#include <variant>

#include "driver/engine_arguments.hpp"
#include "driver/input_stage.hpp"
#include "driver/option_parser.hpp"
#include "driver/option_rules.hpp"
#include "driver/option_table.hpp"
#include "fuzz/fuzzing.hpp"

namespace verdel::internal::fuzzing {
namespace {

using Words = std::vector<std::string>;

// Written once for each of the two command lines: most inputs need it.
const std::string& usage_of(const CommandLine& command_line) {
  static std::map<const CommandLine*, std::string> usages;
  auto [entry, is_new] = usages.try_emplace(&command_line);
  if (is_new) entry->second = command_line.usage();
  return entry->second;
}

// What an action returns, or nothing if it draws a UsageError, which begins with the usage and ends
// with one message.
template <class Action>
auto attempt_usage(const CommandLine& command_line, Action action)
    -> std::optional<decltype(action())> {
  try {
    return action();
  } catch (const UsageError& error) {
    const std::string text = error.what();
    const std::string& usage = usage_of(command_line);
    require(text.starts_with(usage), "a usage error begins with the usage");
    const std::size_t message = text.find(": error: ", usage.size());
    require(message < text.size() - 9, "a usage error has a message");
  }
  return std::nullopt;
}

template <class Value>
bool same(const Value& one, const Value& other) {
  return one == other;
}
bool same(double one, double other) {
  return std::bit_cast<std::uint64_t>(one) == std::bit_cast<std::uint64_t>(other) ||
         (std::isnan(one) && std::isnan(other));
}
bool same(std::optional<double> one, std::optional<double> other) {
  return one.has_value() == other.has_value() && (!one || same(*one, *other));
}

template <class Record>
bool same_record(const OptionTable<Record>& table, const Record& one, const Record& other) {
  bool all = true;
  for (const Option<Record>& option : table) {
    std::visit([&](auto field) { all = all && same(one.*field, other.*field); }, option.field);
  }
  return all;
}

// The words in the form "--name=value", every name whole, from what the command line made of them.
template <class Record>
Words rewritten(const CommandLine& command_line, const OptionTable<Record>& table,
                const Words& words) {
  struct Text {
    std::string operator()(bool) const { return ""; }
    std::string operator()(std::int64_t value) const { return fmt::format("={}", value); }
    std::string operator()(double value) const { return fmt::format("={:.17g}", value); }
    std::string operator()(const std::string& value) const { return fmt::format("={}", value); }
  };
  Words result;
  const auto settings = command_line.parse(words);
  for (const auto& setting : *settings) {
    result.push_back(std::string(table[setting.option].name) + std::visit(Text(), setting.value));
  }
  return result;
}

// What the words mean to a command line; nothing if they are refused or ask for help.
template <class Record>
std::optional<Record> record_of(const CommandLine& command_line, const OptionTable<Record>& table,
                                const Words& words) {
  const auto parse = [&](const Words& list) {
    return attempt_usage(command_line, [&] { return parse_record(command_line, table, list); })
        .value_or(std::nullopt);
  };
  const auto record = parse(words);
  if (!record) return std::nullopt;
  const auto again = parse(rewritten(command_line, table, words));
  require(again && same_record(table, *again, *record), "one meaning, however it is written");
  return record;
}

bool is_renderable(const Options& options) {
  return (options.bands == 32 || options.bands == 128) && options.rule == "energy" &&
         options.tap_gain == "shared" && std::isfinite(options.gain_window) &&
         options.gain_window > 0.0 && std::isfinite(options.alloc_window) &&
         options.alloc_window > 0.0 && options.gain_smooth && std::isfinite(*options.gain_smooth) &&
         *options.gain_smooth >= 0.0;
}

bool apply_rules(Options& options, const CommandLine& command_line) {
  const auto passed = attempt_usage(command_line, [&] {
    apply_option_rules(options, command_line);
    return true;
  });
  require(!passed || is_renderable(options), "what the rules let pass can be rendered");
  return passed.has_value();
}

// Whatever is asked for, what is delivered is part of the mix.
void require_range(const Options& options, const CommandLine& command_line) {
  constexpr std::size_t kFrames = 6000;
  static OutputLines lines(std::fopen("/dev/null", "w"));
  static const Machine machine;
  static const Mix mix = [] {
    Mix empty;
    empty.audio = AudioArray::uninitialised(1, kFrames);
    empty.sr = 44100;
    return empty;
  }();
  const Run run{options, command_line, machine, {}, lines};
  const auto range = attempt([&] { return choose_output_range(run, mix); });
  require(!range || (range->first <= range->stop && range->stop <= kFrames), "a part of the mix");
}

void require_translation(const EngineOptions& request, const CommandLine& command_line,
                         const CommandLine& full) {
  const auto list =
      attempt_usage(command_line, [&] { return engine_arguments(request, command_line); });
  const bool suggests = request.suggest_excerpt > 0.0;
  const bool has_folders = !request.taps.value_or("").empty() && !request.out.value_or("").empty();
  require(list.has_value() == (suggests || has_folders), "only missing folders are refused");
  if (!list) return;
  auto options = record_of(full, option_table(), *list);
  require(options.has_value(), "the translation is understood");
  require(options->mix == request.mix, "the mix is kept");
  if (suggests) {
    require(same(options->suggest_excerpt, request.suggest_excerpt), "the suggestion is kept");
  } else {
    require(options->taps == request.taps && options->out == request.out &&
                same(options->excerpt_start, request.excerpt_start) &&
                same(options->excerpt_len, request.excerpt_len) &&
                options->strict_inputs == request.strict_inputs &&
                options->no_report == request.no_report &&
                options->progress_json == request.progress_json,
            "the request is kept");
    require(options->gain_model == "single-band" && options->allocation == "candidate14",
            "the profile is fixed");
  }
  require(apply_rules(*options, full), "the rules let the profile pass");
  require_range(*options, full);
}

}  // namespace
}  // namespace verdel::internal::fuzzing

// The input is an argument list, its words separated by NUL: no argument can hold one.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace verdel::internal;
  using namespace verdel::internal::fuzzing;
  static const CommandLine full("verdel", entries_of(option_table()));
  static const CommandLine engine("VERDEL Engine", entries_of(engine_option_table()));
  const Words words = split(text_of(data, size), '\0');

  auto options = record_of(full, option_table(), words);
  if (options && apply_rules(*options, full)) require_range(*options, full);
  if (const auto request = record_of(engine, engine_option_table(), words)) {
    require_translation(*request, engine, full);
  }
  return 0;
}
