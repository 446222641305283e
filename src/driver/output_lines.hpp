#pragma once

#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "driver/terminal_progress.hpp"

namespace verdel::internal {

/// Standard output, one line at a time. A write that the system refuses is an OSError at once or
/// at the next flush, so that a run whose reader is gone does not go on unseen.
class OutputLines {
 public:
  explicit OutputLines(std::FILE* stream) : stream_(stream) {}
  /// What is still held goes out, as far as it can.
  ~OutputLines();
  OutputLines(const OutputLines&) = delete;
  OutputLines& operator=(const OutputLines&) = delete;

  /// A line break inside a name is escaped: it must not begin a line that a parent takes for ours.
  void print(std::string_view line);
  /// Text that brings its own line breaks.
  void write(std::string_view text);
  void flush();

  /// From now on lines wait for release(), so that what is found out later may stand before them.
  void hold() { held_.emplace(); }
  void release();
  /// A line that waits for nothing.
  void print_now(std::string_view line);

  /// From now on a person at a terminal sees the stages on `stream`.
  void show_stages_on(std::FILE* stream) { terminal_.emplace(stream, stream_); }
  /// A stage, and what is done of it, 0 to 1; below 0: how far is not known. No line of output, but
  /// where it is seen, what was printed before goes out first.
  void stage(std::string_view name, double done = -1.0);

 private:
  void put(std::string_view text);

  std::FILE* stream_;
  std::optional<std::string> held_;
  std::optional<TerminalProgress> terminal_;
};

/// Writes the progress lines of one run, if the run was asked for them.
class ProgressLines {
 public:
  ProgressLines(OutputLines& lines, bool enabled) : lines_(lines), enabled_(enabled) {}

  /// One line, flushed at once. Threads: calls must not overlap.
  void emit_progress(std::string_view phase, std::size_t completed, std::size_t total) const;

 private:
  OutputLines& lines_;
  bool enabled_;
};

/// The text as a JSON string with its quotation marks: quotes, backslashes and what disturbs a line
/// escaped, everything else beyond ASCII as it is. Bytes that are no text become U+FFFD.
std::string json_string(std::string_view text);

/// The lines that the parent application reads, besides progress.
std::string alignment_line(std::string_view name, std::ptrdiff_t lag);
std::string excerpt_start_line(std::size_t start, int sr);
std::string suggestion_line(std::size_t start, std::size_t length, int sr, double bpm, int bars,
                            double confidence);

}  // namespace verdel::internal
