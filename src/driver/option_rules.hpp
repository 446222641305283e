#pragma once

#include <string>
#include <vector>

#include "driver/option_parser.hpp"
#include "driver/options.hpp"

namespace verdel::internal {

/// Fills in the two defaults that depend on nothing else and refuses what VERDEL does not do.
/// Throws the UsageError of the first rule that fires.
void apply_option_rules(Options& options, const CommandLine& command_line);

/// Every entry of --low-resolution must be the exact name of a stem. Throws UsageError.
void require_known_low_resolution(const Options& options, const std::vector<std::string>& names,
                                  const CommandLine& command_line);

}  // namespace verdel::internal
