#include "driver/output_lines.hpp"

#include <gtest/gtest.h>

#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

TEST(OutputLines, ProgressLinesLeaveAtOnceWithAllThatStandsBeforeThem) {
  const testing::TemporaryFolder folder;
  std::FILE* const file = std::fopen(folder.path("out").c_str(), "w");
  OutputLines lines(file);
  lines.print("mix");
  ProgressLines(lines, false).emit_progress("render", 1, 2);
  EXPECT_EQ(testing::bytes_of(folder.path("out")), "");
  ProgressLines(lines, true).emit_progress("render", 13, 25);
  EXPECT_EQ(testing::bytes_of(folder.path("out")),
            "mix\nverdel-progress-json: "
            "{\"v\":1,\"phase\":\"render\",\"completed\":13,\"total\":25}\n");
  std::fclose(file);
}

TEST(OutputLines, NamesAreJsonAndKeepTheirLetters) {
  EXPECT_EQ(alignment_line("Kick", -3), R"(alignment-json: {"name": "Kick", "lag": -3})");
  EXPECT_EQ(alignment_line("Bässe", 12), R"(alignment-json: {"name": "Bässe", "lag": 12})");
  EXPECT_EQ(json_string(std::string("a\"\\/\b\f\n\r\t\x01\x1f\x7f\0z", 14)),
            "\"a\\\"\\\\/\\u0008\\u000c\\n\\r\\t\\u0001\\u001f\\u007f\\u0000z\"");
  EXPECT_EQ(json_string("\xC2\x85\xE2\x80\xA8\xE2\x80\xAE\xE9"),
            "\"\\u0085\\u2028\\u202e\\ufffd\"");
}

}  // namespace
}  // namespace verdel::internal
