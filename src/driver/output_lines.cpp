#include "driver/output_lines.hpp"

#include <fmt/format.h>

#include <cerrno>
#include <utility>

#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

[[noreturn]] void fail_to_write() {
  throw OSError("cannot write to standard output", errno);
}

}  // namespace

void OutputLines::print(std::string_view line) {
  write(printable(line) + "\n");
}

OutputLines::~OutputLines() {
  if (held_) static_cast<void>(std::fwrite(held_->data(), 1, held_->size(), stream_));
}

void OutputLines::print_now(std::string_view line) {
  put(printable(line) + "\n");
}

void OutputLines::write(std::string_view text) {
  if (held_) {
    held_->append(text);
  } else {
    put(text);
  }
}

void OutputLines::release() {
  const std::string text = std::exchange(held_, std::nullopt).value_or("");
  put(text);
}

void OutputLines::put(std::string_view text) {
  if (terminal_) terminal_->wipe();
  if (std::fwrite(text.data(), 1, text.size(), stream_) != text.size()) fail_to_write();
}

void OutputLines::flush() {
  if (std::fflush(stream_) != 0) fail_to_write();
}

void OutputLines::stage(std::string_view name, double done) {
  if (!terminal_ || !terminal_->draws()) return;
  flush();  // where both are one terminal, what was printed stands above the stage
  terminal_->show(name, done);
}

void ProgressLines::emit_progress(std::string_view phase, std::size_t completed,
                                  std::size_t total) const {
  if (!enabled_) return;
  lines_.print_now(
      fmt::format(R"(verdel-progress-json: {{"v":1,"phase":"{}","completed":{},"total":{}}})",
                  phase, completed, total));
  lines_.flush();
}

std::string json_string(std::string_view text) {
  std::string quoted;
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  const std::string escaped = escape_disturbing(quoted, [](std::string_view, char32_t code) {
    if (code == '\n') return std::string("\\n");
    if (code == '\r') return std::string("\\r");
    if (code == '\t') return std::string("\\t");
    return fmt::format("\\u{:04x}", static_cast<unsigned>(code));
  });
  return "\"" + escaped + "\"";
}

std::string alignment_line(std::string_view name, std::ptrdiff_t lag) {
  return fmt::format(R"(alignment-json: {{"name": {}, "lag": {}}})", json_string(name), lag);
}

std::string excerpt_start_line(std::size_t start, int sr) {
  return fmt::format("excerpt-start-sample: {} of {}", start, sr);
}

std::string suggestion_line(std::size_t start, std::size_t length, int sr, double bpm, int bars,
                            double confidence) {
  return fmt::format(
      "excerpt-suggest: start-sample {} length-samples {} rate {} bpm {:.2f} bars {} confidence "
      "{:.2f}",
      start, length, sr, bpm, bars, confidence);
}

}  // namespace verdel::internal
