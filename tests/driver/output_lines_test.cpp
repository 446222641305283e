#include "driver/output_lines.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>

#include "support/errors.hpp"

namespace verdel {
namespace {

struct Closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Closer>;

/// What has left the program, buffered text excluded.
std::string flushed_text(std::FILE* file) {
  std::string text(1 << 16, '\0');
  const ssize_t count = pread(fileno(file), text.data(), text.size(), 0);
  text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return text;
}

TEST(OutputLines, ProgressLinesLeaveAtOnceWithAllThatStandsBeforeThem) {
  const File file(std::tmpfile());
  OutputLines lines(file.get());
  lines.print("mix");
  ProgressLines(lines, false).emit_progress("render", 1, 2);
  EXPECT_EQ(flushed_text(file.get()), "");
  ProgressLines(lines, true).emit_progress("render", 13, 25);
  EXPECT_EQ(flushed_text(file.get()),
            "mix\nverdel-progress-json: "
            "{\"v\":1,\"phase\":\"render\",\"completed\":13,\"total\":25}\n");
}

TEST(OutputLines, NamesAreJsonAndKeepTheirLetters) {
  EXPECT_EQ(alignment_line("Kick", -3), R"(alignment-json: {"name": "Kick", "lag": -3})");
  EXPECT_EQ(alignment_line("Bässe", 12), R"(alignment-json: {"name": "Bässe", "lag": 12})");
  EXPECT_EQ(json_string(std::string("a\"\\/\b\f\n\r\t\x01\x1f\x7f\0z", 14)),
            "\"a\\\"\\\\/\\u0008\\u000c\\n\\r\\t\\u0001\\u001f\x7f\\u0000z\"");
}

TEST(OutputLines, FiguresHaveTheirPlaces) {
  EXPECT_EQ(excerpt_start_line(96000, 48000), "excerpt-start-sample: 96000 of 48000");
  EXPECT_EQ(suggestion_line(7040, 137165, 16000, 111.976, 4, 0.0),
            "excerpt-suggest: start-sample 7040 length-samples 137165 rate 16000 bpm 111.98 bars 4 "
            "confidence 0.00");
}

TEST(OutputLines, ARefusedWriteIsAFailure) {
  const File full(std::fopen("/dev/full", "w"));
  if (!full) GTEST_SKIP() << "this system has no device that refuses writing";
  OutputLines lines(full.get());
  lines.print("x");
  const auto refused = [](const std::function<void()>& write) {
    try {
      write();
      ADD_FAILURE() << "the write went through";
    } catch (const OSError& error) {
      EXPECT_THAT(error.what(), testing::StartsWith("cannot write to standard output: "));
    }
  };
  refused([&] { lines.flush(); });
  refused([&] { ProgressLines(lines, true).emit_progress("render", 0, 1); });
  refused([&] { lines.print(std::string(1 << 20, 'x')); });
}

}  // namespace
}  // namespace verdel
