#pragma once

#include <cstdio>
#include <string>

#include "driver/option_parser.hpp"
#include "driver/options.hpp"
#include "driver/output_lines.hpp"
#include "signal/song_storage.hpp"
#include "support/machine.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// The surroundings of a run: what a process has, and what tests replace. The streams belong to the
/// caller.
struct RunContext {
  Machine machine;
  std::FILE* out = nullptr;
  std::FILE* err = nullptr;
  StopToken stop = {};
  std::string program_name = "verdel";  ///< what usage and errors call the full command line
};

/// What the stages of one run share. Only the first steps of the walk write `options`; from the
/// input stage on everything here is read, and `lines` is written.
struct Run {
  Options options;
  const CommandLine& command_line;
  const Machine& machine;
  StopToken stop;
  OutputLines& lines;
  SongStorage storage = {};             ///< where what is as long as the song stands
  const ChainOptions* chain = nullptr;  ///< if the master chain is to be heard first
};

}  // namespace verdel::internal
