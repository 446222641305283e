#include "driver/entry.hpp"

#include <fmt/format.h>

#include <cmath>
#include <functional>
#include <new>
#include <system_error>

#include "driver/chain_picture.hpp"
#include "driver/chain_stage.hpp"
#include "driver/check_stage.hpp"
#include "driver/deliver_stage.hpp"
#include "driver/engine_arguments.hpp"
#include "driver/folder_proof.hpp"
#include "driver/option_parser.hpp"
#include "driver/option_table.hpp"
#include "driver/run.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr const char* kEngineProgram = "VERDEL Engine";

/// Who reads standard output. A parent may do so on a terminal of its own making, where a line that
/// is drawn for a person would run into those of the protocol.
enum class Audience { kPerson, kParent };

/// What was printed so far goes out before the failure's text, whatever becomes of it; where it
/// cannot go out, the failure at hand is still the one to report. The text may hold names of any
/// kind, and what a library says of them.
int report_failure(const RunContext& context, const char* text, int status) {
  std::fflush(context.out);
  std::fprintf(context.err, "%s\n", printable_lines(text).c_str());
  std::fflush(context.err);
  return status;
}

/// Runs the body, whose status is that of a good end, and turns its outcome into the exit status.
int exit_status_of(RunContext& context, const std::function<int(OutputLines&)>& body) {
  try {
    OutputLines lines(context.out);
    const int status = body(lines);
    lines.flush();
    return status;
  } catch (const UsageError& error) {
    return report_failure(context, error.what(), kExitUsage);
  } catch (const Cancelled& cancelled) {
    return report_failure(context, cancelled.what(), kExitCancelled);
  } catch (const std::exception& failure) {
    return report_failure(context, words_for(failure), kExitFailure);
  }
}

/// The same for a body that has one good end.
int exit_status_of(RunContext& context, const std::function<void(OutputLines&)>& body) {
  return exit_status_of(context, std::function<int(OutputLines&)>([&](OutputLines& lines) {
                          body(lines);
                          return 0;
                        }));
}

/// Answers "--version" where nothing else is asked, and tells whether it did. It stands in no table
/// of options, because each option there takes something from the prefixes of the others.
bool print_version(const char* program, const std::vector<std::string>& arguments,
                   OutputLines& lines) {
  if (arguments.size() != 1 || arguments.front() != "--version") return false;
  lines.print(fmt::format("{} {}", program, VERDEL_VERSION));
  return true;
}

void run_arguments(const std::vector<std::string>& arguments, const RunContext& context,
                   OutputLines& lines, Audience audience) {
  const CommandLine command_line(context.program_name, entries_of(option_table()));
  auto options = parse_record(command_line, option_table(), arguments);
  if (!options) return lines.write(command_line.help());
  if (audience == Audience::kPerson && !options->progress_json) lines.show_stages_on(context.err);
  run_engine({.options = std::move(*options),
              .command_line = command_line,
              .machine = context.machine,
              .stop = context.stop,
              .lines = lines});
}

}  // namespace

const char* words_for(const std::exception& failure) {
  if (dynamic_cast<const std::bad_alloc*>(&failure) != nullptr) {
    return "the machine has not enough free memory for this render; use fewer stems or a shorter "
           "bounce, or raise the limit on this process's memory (ulimit -v)";
  }
  const auto* const refusal = dynamic_cast<const std::system_error*>(&failure);
  if (refusal != nullptr && refusal->code() == std::errc::resource_unavailable_try_again) {
    return "the system gives this process no further thread; end other programs, or raise the "
           "limits on processes (ulimit -u) and on this process's memory (ulimit -v)";
  }
  return failure.what();
}

int main(const std::vector<std::string>& arguments, RunContext& context) {
  return exit_status_of(context, [&](OutputLines& lines) {
    if (print_version("verdel", arguments, lines)) return;
    run_arguments(arguments, context, lines, Audience::kPerson);
  });
}

int shipping_main(const std::vector<std::string>& arguments, RunContext& context) {
  return exit_status_of(context, [&](OutputLines& lines) {
    if (print_version("verdel-engine", arguments, lines)) return;
    const CommandLine command_line(kEngineProgram, entries_of(engine_option_table()));
    const auto options = parse_record(command_line, engine_option_table(), arguments);
    if (!options) return lines.write(command_line.help());
    run_arguments(engine_arguments(*options, command_line), context, lines, Audience::kParent);
  });
}

int verify_main(const std::vector<std::string>& arguments, RunContext& context) {
  return exit_status_of(context, [&](OutputLines& lines) {
    if (print_version("verdel-verify", arguments, lines)) return;
    const CommandLine command_line(context.program_name, entries_of(verify_option_table()));
    const auto options = parse_record(command_line, verify_option_table(), arguments);
    if (!options) return lines.write(command_line.help());
    if (!std::isfinite(options->threshold)) {
      command_line.fail("--threshold takes a finite number of dBFS");
    }
    prove_folder(*options, lines, context.stop);
  });
}

int chain_main(const std::vector<std::string>& arguments, RunContext& context) {
  return exit_status_of(context, [&](OutputLines& lines) {
    if (print_version("verdel-chain", arguments, lines)) return;
    const CommandLine command_line(context.program_name, entries_of(chain_option_table()));
    const auto chain = parse_record(command_line, chain_option_table(), arguments);
    if (!chain) return lines.write(command_line.help());
    if (chain->picture) require_picture_format(*chain->picture, command_line);
    if (!chain->progress_json) lines.show_stages_on(context.err);
    lines.hold();
    run_engine({.options = render_options(*chain),
                .command_line = command_line,
                .machine = context.machine,
                .stop = context.stop,
                .lines = lines,
                .chain = &*chain});
  });
}

int deliver_main(const std::vector<std::string>& arguments, RunContext& context) {
  return exit_status_of(context, [&](OutputLines& lines) {
    if (print_version("verdel-deliver", arguments, lines)) return;
    const CommandLine command_line(context.program_name, entries_of(deliver_option_table()));
    const auto options = parse_record(command_line, deliver_option_table(), arguments);
    if (!options) return lines.write(command_line.help());
    if (!options->progress_json) lines.show_stages_on(context.err);
    deliver_folder(*options, context.machine.processors(), lines, context.stop);
  });
}

int check_main(const std::vector<std::string>& arguments, RunContext& context) {
  const auto check = [&](OutputLines& lines) {
    if (print_version("verdel-check", arguments, lines)) return 0;
    const CommandLine command_line(context.program_name, entries_of(check_option_table()));
    const auto options = parse_record(command_line, check_option_table(), arguments);
    if (!options) {
      lines.write(command_line.help());
      return 0;
    }
    lines.show_stages_on(context.err);
    return check_taps(*options, context.machine, lines, context.stop) ? 0 : kExitFindings;
  };
  return exit_status_of(context, std::function<int(OutputLines&)>(check));
}

}  // namespace verdel::internal
