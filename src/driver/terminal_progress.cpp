#include "driver/terminal_progress.hpp"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>

namespace verdel::internal {
namespace {

constexpr const char* kWipe = "\r\x1b[K";
constexpr const char* kDim = "\x1b[2m";
constexpr const char* kPlain = "\x1b[0m";
constexpr std::chrono::milliseconds kRedraw{100};

// Below these a guess at the time left would jump about.
constexpr double kLeastDone = 0.03;
constexpr double kLeastSeconds = 1.0;

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

bool can_wipe(std::FILE* stream) {
  const std::string_view terminal = environment("TERM");
  return isatty(fileno(stream)) == 1 && !terminal.empty() && terminal != "dumb";
}

bool has_reader(std::FILE* output) {
  struct stat status {};
  return fstat(fileno(output), &status) == 0 &&
         (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

}  // namespace

std::string progress_text(std::string_view stage, double done, double elapsed_seconds) {
  if (done < 0.0) return std::string(stage);
  std::string text = fmt::format("{}  {:.0f} %", stage, std::floor(100.0 * done));
  if (done >= kLeastDone && elapsed_seconds >= kLeastSeconds) {
    const auto left = std::llround(elapsed_seconds * (1.0 - done) / done);
    text += fmt::format("  {}:{:02} left", left / 60, left % 60);
  }
  return text;
}

TerminalProgress::TerminalProgress(std::FILE* stream, std::FILE* output)
    : stream_(can_wipe(stream) && !has_reader(output) ? stream : nullptr),
      dimmed_(environment("NO_COLOR").empty()) {}

void TerminalProgress::show(std::string_view stage, double done) {
  if (stream_ == nullptr) return;
  const auto now = Clock::now();
  if (stage != stage_) {
    stage_ = stage;
    stage_begin_ = now;
  } else if (drawn_ && now - last_drawn_ < kRedraw) {
    return;
  }
  const double elapsed = std::chrono::duration<double>(now - stage_begin_).count();
  const std::string text = progress_text(stage, done, elapsed);
  std::fprintf(stream_, "%s%s%s%s", kWipe, dimmed_ ? kDim : "", text.c_str(),
               dimmed_ ? kPlain : "");
  std::fflush(stream_);
  drawn_ = true;
  last_drawn_ = now;
}

void TerminalProgress::wipe() {
  if (!drawn_) return;
  std::fputs(kWipe, stream_);
  std::fflush(stream_);
  drawn_ = false;
}

}  // namespace verdel::internal
