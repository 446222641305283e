#pragma once

#include "driver/entry.hpp"

namespace verdel::internal {

using Entry = int (*)(const std::vector<std::string>& arguments, RunContext& context);

/// Calls an entry with the process's own arguments, streams and machine, and returns its status. A
/// reader that closes standard output early, and a limit on the size of files, show as a failure of
/// writing, never as a signal. SIGINT, SIGTERM and SIGHUP end the run and then, by themselves, the
/// process; see end_signals.hpp.
int run_process(Entry entry, int argc, char** argv);

}  // namespace verdel::internal
