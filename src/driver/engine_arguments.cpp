#include "driver/engine_arguments.hpp"

#include "support/number_text.hpp"

namespace verdel::internal {
namespace {

class ArgumentList {
 public:
  void add_flag(const std::string& name) { arguments_.push_back(name); }

  void add(const std::string& name, const std::string& value) {
    if (full_.reads_as_value(value)) {
      arguments_.insert(arguments_.end(), {name, value});
    } else {
      arguments_.push_back(name + "=" + value);
    }
  }

  std::vector<std::string> take() { return std::move(arguments_); }

 private:
  CommandLine full_{"", entries_of(option_table())};
  std::vector<std::string> arguments_;
};

}  // namespace

std::vector<std::string> engine_arguments(const EngineOptions& options,
                                          const CommandLine& command_line) {
  constexpr Profile profile;
  ArgumentList list;
  list.add("--mix", options.mix.value_or(""));
  if (options.suggest_excerpt > 0.0) {
    list.add("--suggest-excerpt", shortest_float64(options.suggest_excerpt));
    return list.take();
  }
  const std::string taps = options.taps.value_or("");
  const std::string out = options.out.value_or("");
  if (taps.empty() || out.empty()) {
    command_line.fail("--taps and --out are required for processing");
  }
  list.add("--taps", taps);
  list.add("--out", out);
  list.add("--gain-model", "single-band");
  list.add("--allocation", "candidate14");
  list.add("--bands", std::to_string(profile.report_bands));
  list.add("--gain-window", general(profile.gain_window_ms));
  list.add("--gain-smooth", general(profile.gain_smooth_ms));
  list.add("--alloc-window", "5");
  list.add("--rule", "energy");
  list.add("--tap-gain", "shared");
  if (options.excerpt_start) list.add("--excerpt-start", shortest_float64(*options.excerpt_start));
  if (options.excerpt_len) list.add("--excerpt-len", shortest_float64(*options.excerpt_len));
  if (options.strict_inputs) list.add_flag("--strict-inputs");
  if (options.no_report) list.add_flag("--no-report");
  if (options.progress_json) list.add_flag("--progress-json");
  return list.take();
}

}  // namespace verdel::internal
