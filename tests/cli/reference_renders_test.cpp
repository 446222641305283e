#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "cli/run_program.hpp"
#include "inputs/audio_loading.hpp"

namespace verdel {
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
  bool has_picks = true;
};

std::ostream& operator<<(std::ostream& stream, const Reference& reference) {
  return stream << reference.name << " " << reference.stdout_file;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

/// The figures of a line, and the line with a mark in the place of each.
struct Figures {
  std::vector<double> values;
  std::string words;
};

Figures figures_of(const std::string& line) {
  Figures figures;
  for (const char* at = line.c_str(); *at != '\0';) {
    char* end = nullptr;
    const double value = std::strtod(at, &end);
    const bool is_figure =
        end != at &&
        std::string_view(at, static_cast<std::size_t>(end - at)).find('.') != std::string::npos;
    if (is_figure) {
      figures.values.push_back(value);
      figures.words += '#';
      at = end;
    } else {
      figures.words += *at++;
    }
  }
  return figures;
}

/// Equal lines, or in the report one step of a likeness (two digits) or of a ratio (one digit): the
/// figures there come from a computation of their own, and may stand on a rounding edge.
void expect_line(const std::string& got, const std::string& expected) {
  if (got == expected || expected.find(" foreign ") == std::string::npos) {
    EXPECT_EQ(got, expected);
    return;
  }
  const Figures a = figures_of(got);
  const Figures b = figures_of(expected);
  EXPECT_EQ(a.words, b.words);
  ASSERT_EQ(a.values.size(), b.values.size());
  for (std::size_t i = 0; i < a.values.size(); ++i) {
    EXPECT_NEAR(a.values[i], b.values[i], i == 0 ? 0.101 : 0.0101) << got;
  }
}

void expect_lines(const std::string& out, const std::string& expected) {
  const auto got_lines = lines_of(out);
  const auto expected_lines = lines_of(expected);
  ASSERT_EQ(got_lines.size(), expected_lines.size()) << out;
  for (std::size_t i = 0; i < got_lines.size(); ++i) {
    if (expected_lines[i] == "out   OUT" && got_lines[i].starts_with("out   ")) continue;
    expect_line(got_lines[i], expected_lines[i]);
  }
}

std::vector<std::string> split(const std::string& line, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(line);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

void expect_stems_near(const std::string& out, const std::string& picks) {
  std::ifstream file(picks);
  std::string line;
  ASSERT_TRUE(std::getline(file, line));
  auto columns = split(line, ',');
  columns.erase(columns.begin());
  std::map<std::string, AudioArray> stems;
  for (const auto& column : columns) {
    const std::string name = split(column, ':')[0];
    if (!stems.contains(name)) stems[name] = load(out + "/" + name + ".wav").audio;
  }
  double worst = 0.0;
  std::size_t count = 0;
  while (std::getline(file, line)) {
    const auto cells = split(line, ',');
    ASSERT_EQ(cells.size(), columns.size() + 1);
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const auto column = split(columns[i], ':');
      const double value = stems[column[0]].row(std::stoul(column[1]))[std::stoul(cells[0])];
      worst = std::max(worst, std::abs(value - std::stod(cells[i + 1])));
      ++count;
    }
  }
  EXPECT_GT(count, 1000U);
  EXPECT_LE(worst, kNear) << 20.0 * std::log10(worst) << " dBFS";
}

class ReferenceRenders : public ::testing::TestWithParam<Reference> {};

TEST_P(ReferenceRenders, PrintTheSameFiguresAndWriteTheSameStems) {
  const Reference& reference = GetParam();
  const TemporaryFolder folder;
  Arguments arguments = reference.arguments;
  if (reference.has_picks) arguments.insert(arguments.end(), {"--out", folder.path("stems")});
  const auto result =
      run_program({.program = reference.program, .arguments = arguments, .folder = kData});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  const std::string expected = kData + "/" + reference.name + "/";
  expect_lines(result.out, testing::text_of_file(expected + reference.stdout_file));
  if (reference.has_picks) expect_stems_near(folder.path("stems"), expected + "picks.csv");
}

const Reference kReferences[] = {
    {"short",
     "verdel-engine",
     {"--mix", "short/mix/mix.flac", "--taps", "short/taps"},
     "stdout.txt"},
    {"short",
     "verdel-engine",
     {"--mix", "short/mix/mix.flac", "--taps", "short/taps", "--no-report"},
     "stdout-no-report.txt"},
    {"short-excerpt",
     "verdel-engine",
     {"--mix", "short/mix/mix.flac", "--taps", "short/taps", "--excerpt-start", "2.5",
      "--excerpt-len", "1.25", "--no-report"},
     "stdout.txt"},
    {"silence",
     "verdel-engine",
     {"--mix", "silence/mix/mix.flac", "--taps", "silence/taps", "--no-report"},
     "stdout.txt"},
    {"lags",
     "verdel-engine",
     {"--mix", "lags/mix/mix.flac", "--taps", "lags/taps", "--no-report"},
     "stdout.txt"},
    {"intervals",
     "verdel",
     {"--mix", "intervals/mix/mix.flac", "--taps", "intervals/taps", "--no-report",
      "--any-channels", "--allocation", "candidate14"},
     "stdout.txt"},
    {"suggest",
     "verdel-engine",
     {"--mix", "lags/mix/mix.flac", "--suggest-excerpt", "8"},
     "stdout.txt",
     false},
};

INSTANTIATE_TEST_SUITE_P(All, ReferenceRenders, ::testing::ValuesIn(kReferences),
                         [](const auto& reference) {
                           std::string name = std::string(reference.param.name) + "_" +
                                              reference.param.stdout_file;
                           std::erase_if(name, [](char c) { return !std::isalnum(c) && c != '_'; });
                           return name;
                         });

}  // namespace
}  // namespace verdel
