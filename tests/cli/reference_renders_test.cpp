#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <sstream>

#include "cli/run_program.hpp"
#include "inputs/audio_loading.hpp"

namespace verdel::internal {
namespace {

using testing::run_program;
using testing::TemporaryFolder;
using Arguments = std::vector<std::string>;

const std::string kData = VERDEL_TEST_DATA "/golden";
constexpr double kNear = 1e-7;  // -140 dBFS

struct Reference {
  const char* name;
  const char* program;
  Arguments arguments;      ///< from the data folder; --out is added for a render
  const char* stdout_file;  ///< what it prints, progress aside
};

std::vector<std::string> split(const std::string& line, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(line);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

/// Equal lines, or in the report one step of a ratio (one digit) or of a likeness (two digits, in
/// brackets): the figures there come from a computation of their own, and may stand on a rounding
/// edge.
void expect_line(const std::string& got, const std::string& expected) {
  if (got == expected || expected.find(" foreign ") == std::string::npos) {
    EXPECT_EQ(got, expected);
    return;
  }
  const auto got_words = split(got, ' '), words = split(expected, ' ');
  ASSERT_EQ(got_words.size(), words.size()) << got << "\n" << expected;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (got_words[i] == words[i]) continue;
    ASSERT_NE(words[i].find('.'), std::string::npos) << got << "\n" << expected;
    const bool is_likeness = words[i].front() == '(';
    const auto value = [&](const std::string& word) { return std::stod(word.substr(is_likeness)); };
    EXPECT_NEAR(value(got_words[i]), value(words[i]), is_likeness ? 0.0101 : 0.101) << got;
  }
}

void expect_lines(const std::string& out, const std::string& expected) {
  const auto got_lines = testing::lines_of(out), expected_lines = testing::lines_of(expected);
  ASSERT_EQ(got_lines.size(), expected_lines.size()) << out;
  for (std::size_t i = 0; i < got_lines.size(); ++i) {
    if (expected_lines[i] == "out   OUT" && got_lines[i].starts_with("out   ")) continue;
    expect_line(got_lines[i], expected_lines[i]);
  }
}

/// Holds the samples of the stems against a table: "sample,NAME:CHANNEL,..." and rows of values.
void expect_stems_near(const std::string& out, const std::string& picks) {
  const auto rows = testing::lines_of(testing::bytes_of(picks));
  ASSERT_GT(rows.size(), 200U);
  const auto columns = split(rows[0], ',');
  std::map<std::string, AudioArray> stems;
  double worst = 0.0;
  for (std::size_t r = 1; r < rows.size(); ++r) {
    const auto cells = split(rows[r], ',');
    ASSERT_EQ(cells.size(), columns.size());
    for (std::size_t i = 1; i < columns.size(); ++i) {
      const auto column = split(columns[i], ':');
      AudioArray& stem = stems[column[0]];
      if (stem.size() == 0) stem = load(out + "/" + column[0] + ".wav").audio;
      const double value = stem.row(std::stoul(column[1]))[std::stoul(cells[0])];
      const double error = std::abs(value - std::stod(cells[i]));
      if (!(error <= worst)) worst = error;  // nor does a value that is no number pass
    }
  }
  EXPECT_LE(worst, kNear) << 20.0 * std::log10(worst) << " dBFS";
}

Arguments render(const std::string& project, const Arguments& more = {"--no-report"}) {
  Arguments arguments = {"--mix", project + "/mix/mix.flac", "--taps", project + "/taps"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

const Reference kReferences[] = {
    {"short", "verdel-engine", render("short", {}), "stdout.txt"},
    {"short", "verdel-engine", render("short"), "stdout-no-report.txt"},
    {"short-excerpt", "verdel-engine",
     render("short", {"--excerpt-start", "2.5", "--excerpt-len", "1.25", "--no-report"}),
     "stdout.txt"},
    {"silence", "verdel-engine", render("silence"), "stdout.txt"},
    {"lags", "verdel-engine", render("lags"), "stdout.txt"},
    {"intervals", "verdel",
     render("intervals", {"--no-report", "--any-channels", "--allocation", "candidate14"}),
     "stdout.txt"},
    {"suggest",
     "verdel-engine",
     {"--mix", "lags/mix/mix.flac", "--suggest-excerpt", "8"},
     "stdout.txt"},
};

TEST(ReferenceRenders, PrintTheSameFiguresAndWriteTheSameStems) {
  for (const Reference& reference : kReferences) {
    SCOPED_TRACE(reference.name + std::string(" ") + reference.stdout_file);
    const TemporaryFolder folder;
    const bool is_render = reference.name != std::string("suggest");
    Arguments arguments = reference.arguments;
    if (is_render) arguments.insert(arguments.end(), {"--out", folder.path("stems")});
    const auto result =
        run_program({.program = reference.program, .arguments = arguments, .folder = kData});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    const std::string expected = kData + "/" + reference.name + "/";
    expect_lines(result.out, testing::bytes_of(expected + reference.stdout_file));
    if (is_render) expect_stems_near(folder.path("stems"), expected + "picks.csv");
  }
}

}  // namespace
}  // namespace verdel::internal
