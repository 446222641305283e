#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::testing {

struct ProgramRun {
  std::string program;  ///< "verdel" or "verdel-engine"
  std::vector<std::string> arguments = {};
  std::string folder = ".";      ///< the process's working directory
  std::string environment = {};  ///< "NAME=value", beside what the test has
  bool reader_is_gone = false;   ///< standard output is a pipe that nobody reads
};

struct ProgramResult {
  int status = 0;  ///< exit status; 128 more than the signal that ended it
  std::string out, err;
};

/// Runs one of the built programs in a shell, its standard input closed, and waits for its end.
inline ProgramResult run_program(const ProgramRun& run) {
  const auto quoted = [](const std::string& word) {
    std::string text = "'";
    for (const char c : word) c == '\'' ? text += "'\\''" : text += c;
    return text += "'";
  };
  const TemporaryFolder streams;
  std::string command = "cd ";
  command += quoted(run.folder) + " && { " + run.environment + " ";
  command += quoted(VERDEL_PROGRAM_FOLDER "/" + run.program);
  for (const std::string& argument : run.arguments) command.append(" ").append(quoted(argument));
  command += " <&- 2>" + streams.path("err") + "; echo $? >" + streams.path("status") + "; } ";
  command += run.reader_is_gone ? "| true" : std::string(">") + streams.path("out");
  if (std::system(command.c_str()) == -1) throw std::runtime_error("no shell");
  return {std::stoi(bytes_of(streams.path("status"))), bytes_of(streams.path("out")),
          bytes_of(streams.path("err"))};
}

}  // namespace verdel::testing
