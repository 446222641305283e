#pragma once

#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>

namespace verdel::internal {

/// One line at the bottom of a person's terminal: the stage, how far it is, and the time it will
/// still take. It is drawn over itself and wiped before anything else is printed.
///
/// Threads: calls must not overlap.
class TerminalProgress {
 public:
  /// Draws nothing unless `stream` is a terminal that can wipe a line, and nothing while `output`,
  /// where lines are printed, is a pipe: who reads it may print them on that terminal at any time.
  /// The streams stay the caller's.
  TerminalProgress(std::FILE* stream, std::FILE* output);
  ~TerminalProgress() { wipe(); }
  TerminalProgress(const TerminalProgress&) = delete;
  TerminalProgress& operator=(const TerminalProgress&) = delete;

  bool draws() const { return stream_ != nullptr; }
  /// The stage and what is done of it, 0 to 1; below 0: how far is not known.
  void show(std::string_view stage, double done = -1.0);
  void wipe();

 private:
  using Clock = std::chrono::steady_clock;

  std::FILE* stream_;  ///< null: nothing is drawn
  bool dimmed_, drawn_ = false;
  std::string stage_;
  Clock::time_point stage_begin_, last_drawn_;
};

/// The line's text: "rendering  42 %  1:05 left". The time is left out while little is known of it.
std::string progress_text(std::string_view stage, double done, double elapsed_seconds);

}  // namespace verdel::internal
