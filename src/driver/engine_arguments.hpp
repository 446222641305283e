#pragma once

#include <string>
#include <vector>

#include "driver/option_parser.hpp"
#include "driver/options.hpp"

namespace verdel::internal {

/// The argument list of the full command line that does what the engine was asked for: its own
/// options and the fixed processing profile. Numbers are written so that they read back as
/// the same value, and a text that would be taken for an option is tied to its option by "=".
/// Throws the UsageError of `command_line` if a render lacks its folders.
std::vector<std::string> engine_arguments(const EngineOptions& options,
                                          const CommandLine& command_line);

}  // namespace verdel::internal
