#pragma once

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/files.hpp"
#include "support/temporary_folder.hpp"

extern char** environ;

namespace verdel::internal::testing {

struct ProgramRun {
  std::string program;  ///< "verdel" or "verdel-engine"
  std::vector<std::string> arguments = {};
  std::string folder = ".";       ///< the process's working directory
  std::string prefix = {};        ///< a command that runs the program behind it, in a shell's words
  std::string redirections = {};  ///< of a shell; standard input is closed anyway
  bool reader_is_gone = false;    ///< standard output is a pipe that nobody reads
};

struct ProgramResult {
  int status = 0;  ///< exit status; 128 more than the signal that ended it
  int signal = 0;  ///< that signal, 0 if it was none
  std::string out, err;
};

/// One of the built programs while it runs. It is killed if nobody waits for its end.
class RunningProgram {
 public:
  explicit RunningProgram(const ProgramRun& run) {
    const auto quoted = [](const std::string& word) {
      std::string text = "'";
      for (const char c : word) c == '\'' ? text += "'\\''" : text += c;
      return text += "'";
    };
    std::string command = "cd " + quoted(run.folder);
    command += " && exec " + run.prefix + " ";
    command += quoted(VERDEL_PROGRAM_FOLDER "/" + run.program);
    for (const std::string& argument : run.arguments) command.append(" ").append(quoted(argument));
    command += " <&- 2>" + quoted(streams_.path("err")) + " " + run.redirections;

    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[1]);
    output_ = fdopen(ends[0], "r");
    if (run.reader_is_gone) stop_reading();
    std::string shell = "sh", option = "-c";
    char* const words[] = {shell.data(), option.data(), command.data(), nullptr};
    const int error = posix_spawn(&process_, "/bin/sh", &actions, nullptr, words, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (error != 0) throw std::runtime_error("no shell");
  }
  ~RunningProgram() {
    if (process_ > 0) {
      send(SIGKILL);
      wait();
    }
  }
  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  /// Waits for the next line of standard output; false at its end.
  bool read_line() {
    for (int c = 0; output_ != nullptr && (c = std::fgetc(output_)) != EOF;) {
      out_ += static_cast<char>(c);
      if (c == '\n') return true;
    }
    return false;
  }
  void stop_reading() {
    if (output_ != nullptr) std::fclose(std::exchange(output_, nullptr));
  }
  void send(int signal) const { kill(process_, signal); }
  bool has_ended() const {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(process_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid != 0;
  }

  ProgramResult wait() {
    while (read_line()) {
    }
    stop_reading();
    int status = 0;
    waitpid(std::exchange(process_, 0), &status, 0);
    const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return {signal != 0 ? 128 + signal : WEXITSTATUS(status), signal, out_,
            bytes_of(streams_.path("err"))};
  }

 private:
  TemporaryFolder streams_;
  std::FILE* output_ = nullptr;
  pid_t process_ = 0;
  std::string out_;
};

inline ProgramResult run_program(const ProgramRun& run) {
  return RunningProgram(run).wait();
}

}  // namespace verdel::internal::testing
