#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/temporary_folder.hpp"

extern char** environ;

namespace verdel::testing {

struct ProgramRun {
  std::string program;  ///< "verdel" or "verdel-engine"
  std::vector<std::string> arguments = {};
  std::string folder = ".";                   ///< the process's working directory
  std::vector<std::string> environment = {};  ///< "NAME=value", beside what the test has
  bool reader_is_gone = false;                ///< standard output is a pipe that nobody reads
};

struct ProgramResult {
  int status = 0;  ///< exit status; the negative number of the signal that ended it
  std::string out, err;
};

inline std::string text_of_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// Runs one of the built programs, its standard input closed, and waits for its end.
inline ProgramResult run_program(const ProgramRun& run) {
  const TemporaryFolder streams;
  const std::string path = std::string(VERDEL_PROGRAM_FOLDER) + "/" + run.program;
  std::vector<std::string> words = {path};
  words.insert(words.end(), run.arguments.begin(), run.arguments.end());
  std::vector<std::string> variables = run.environment;
  for (char** variable = environ; *variable != nullptr; ++variable) variables.push_back(*variable);
  const auto pointers = [](std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (auto& text : texts) result.push_back(text.data());
    result.push_back(nullptr);
    return result;
  };
  int pipe_ends[2] = {-1, -1};
  if (run.reader_is_gone && pipe(pipe_ends) != 0) throw std::runtime_error("no pipe");

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addclose(&actions, STDIN_FILENO);
  constexpr int kCreate = O_WRONLY | O_CREAT | O_TRUNC;
  if (run.reader_is_gone) {
    posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipe_ends[0]);
    posix_spawn_file_actions_addclose(&actions, pipe_ends[1]);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, streams.path("out").c_str(), kCreate,
                                     0600);
  }
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, streams.path("err").c_str(), kCreate,
                                   0600);
  posix_spawn_file_actions_addchdir_np(&actions, run.folder.c_str());
  pid_t child = 0;
  const int error = posix_spawn(&child, path.c_str(), &actions, nullptr, pointers(words).data(),
                                pointers(variables).data());
  posix_spawn_file_actions_destroy(&actions);
  for (const int end : pipe_ends) {
    if (end >= 0) close(end);
  }
  if (error != 0) throw std::runtime_error("cannot start " + path);
  int state = 0;
  waitpid(child, &state, 0);
  return {WIFEXITED(state) ? WEXITSTATUS(state) : -WTERMSIG(state),
          text_of_file(streams.path("out")), text_of_file(streams.path("err"))};
}

}  // namespace verdel::testing
