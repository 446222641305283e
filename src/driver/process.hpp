#pragma once

#include "driver/entry.hpp"

namespace verdel {

using Entry = int (*)(const std::vector<std::string>& arguments, RunContext& context);

/// Calls an entry with the process's own arguments, streams and machine. A reader that closes
/// standard output early shows as a failure of writing, never as a signal.
int run_process(Entry entry, int argc, char** argv);

}  // namespace verdel
