#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "cli/run_program.hpp"
#include "inputs/audio_loading.hpp"

namespace verdel::internal {
namespace {

using testing::run_program;
using testing::TemporaryFolder;

const std::string kData = VERDEL_TEST_DATA "/golden";

constexpr const char* kNull = "null residual: ";

/// Equal lines; or 1 dB in what is left of the mix, which is the last bit of one sample; or in the
/// report one step of a ratio (one digit) or of a likeness (two digits, in
/// brackets): the figures there come from a computation of their own, and may stand on a rounding
/// edge.
void expect_line(const std::string& got, const std::string& expected) {
  if (got.starts_with(kNull) && expected.starts_with(kNull) && got.ends_with(" dBFS  PASS")) {
    const std::size_t at = std::string(kNull).size();
    EXPECT_NEAR(std::stod(got.substr(at)), std::stod(expected.substr(at)), 1.0) << got;
    return;
  }
  if (got == expected || expected.find(" foreign ") == std::string::npos) {
    EXPECT_EQ(got, expected);
    return;
  }
  const auto got_words = testing::parts_of(got, ' '), words = testing::parts_of(expected, ' ');
  ASSERT_EQ(got_words.size(), words.size()) << got << "\n" << expected;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (got_words[i] == words[i]) continue;
    const bool is_likeness = words[i].front() == '(';
    const auto value = [&](const std::string& word) { return std::stod(word.substr(is_likeness)); };
    EXPECT_NEAR(value(got_words[i]), value(words[i]), is_likeness ? 0.0101 : 0.101) << got;
  }
}

/// Holds the samples of the stems against a table: "sample,NAME:CHANNEL,..." and rows of values.
void expect_stems_near(const std::string& out, const std::string& picks) {
  const auto rows = testing::lines_of(testing::bytes_of(picks));
  ASSERT_GT(rows.size(), 200U);
  const auto columns = testing::parts_of(rows[0], ',');
  std::map<std::string, AudioArray> stems;
  double worst = 0.0;
  for (std::size_t r = 1; r < rows.size(); ++r) {
    const auto cells = testing::parts_of(rows[r], ',');
    for (std::size_t i = 1; i < columns.size(); ++i) {
      const auto column = testing::parts_of(columns[i], ':');
      AudioArray& stem = stems[column[0]];
      if (stem.size() == 0) stem = load(out + "/" + column[0] + ".wav").audio;
      const double value = stem.row(std::stoul(column[1]))[std::stoul(cells[0])];
      const double error = std::abs(value - std::stod(cells[i]));
      if (!(error <= worst)) worst = error;  // nor does a value that is no number pass
    }
  }
  EXPECT_LE(worst, 1e-7) << 20.0 * std::log10(worst) << " dBFS";
}

// The folder of what is expected, the program, the file of what it prints (progress aside), and its
// arguments from the data folder, to which a render adds --out.
constexpr const char* kReferences =
    R"(short verdel-engine stdout.txt --mix short/mix/mix.flac --taps short/taps
short verdel-engine stdout-no-report.txt --mix short/mix/mix.flac --taps short/taps --no-report
short-excerpt verdel-engine stdout.txt --mix short/mix/mix.flac --taps short/taps --excerpt-start 2.5 --excerpt-len 1.25 --no-report
silence verdel-engine stdout.txt --mix silence/mix/mix.flac --taps silence/taps --no-report
lags verdel-engine stdout.txt --mix lags/mix/mix.flac --taps lags/taps --no-report
intervals verdel stdout.txt --mix intervals/mix/mix.flac --taps intervals/taps --no-report --any-channels --allocation candidate14
suggest verdel-engine stdout.txt --mix lags/mix/mix.flac --suggest-excerpt 8
)";

TEST(ReferenceRenders, PrintTheSameFiguresAndWriteTheSameStems) {
  for (const std::string& line : testing::lines_of(kReferences)) {
    SCOPED_TRACE(line);
    const TemporaryFolder folder;
    auto words = testing::parts_of(line, ' ');
    const std::string expected = kData + "/" + words[0] + "/";
    const std::string program = words[1], printed = testing::bytes_of(expected + words[2]);
    words.erase(words.begin(), words.begin() + 3);
    const bool is_render = line.find("--taps") != std::string::npos;
    if (is_render) words.insert(words.end(), {"--out", folder.path("stems")});
    const auto result = run_program({.program = program, .arguments = words, .folder = kData});
    ASSERT_TRUE(result.status == 0 && result.err.empty()) << result.err;
    const auto got = testing::lines_of(result.out), wanted = testing::lines_of(printed);
    ASSERT_EQ(got.size(), wanted.size()) << result.out;
    for (std::size_t i = 0; i < got.size(); ++i) {
      if (wanted[i] != "out   OUT" || !got[i].starts_with("out   ")) expect_line(got[i], wanted[i]);
    }
    if (is_render) expect_stems_near(folder.path("stems"), expected + "picks.csv");
  }
}

// A song through a four-band EQ and a compressor, both the same for every tap.
TEST(ReferenceRenders, HearTheEqualiserAndTheGainsOfAMaster) {
  const TemporaryFolder folder;
  const std::string heard = folder.path("heard"), json = folder.path("found.json");
  const std::string song = VERDEL_TEST_DATA "/chain";
  const auto result = run_program({.program = "verdel-chain",
                                   .arguments = {"--project", song, "--out", folder.path("out"),
                                                 "--taps-to", heard, "--json", json}});
  EXPECT_TRUE(result.out.starts_with(
      "--- master chain ---\n"
      "curve: one curve, takes 5.6 dB off what is left (-12.4 to -18.1 dB)\n"
      "       5 of 5 taps vote for it (0.44 to 1.10; 1 is a tap that went through it)\n"
      "gain:  one for all frequencies, then 8 bands of an octave, takes 12.1 dB off what is left "
      "(-18.1 to -30.2 dB)\n\nmix   "))
      << result.out << result.err;
  EXPECT_TRUE(result.out.ends_with("  PASS\n") && result.status == 0);
  EXPECT_NE(testing::bytes_of(json).find("\"cross_validation_db\": 25.1"), std::string::npos);
  std::map<std::string, AudioArray> taps;
  double error = 0.0, energy = 0.0;
  for (const std::string& row : testing::lines_of(testing::bytes_of(song + "/heard.csv"))) {
    const auto cells = testing::parts_of(row, ',');
    if (cells[0] == "tap") continue;
    AudioArray& tap = taps[cells[0]];
    if (tap.empty()) tap = load(heard + "/" + cells[0] + ".wav").audio;
    const double value = std::stod(cells[3]);
    error += std::pow(tap.row(std::stoul(cells[1]))[std::stoul(cells[2])] - value, 2.0);
    energy += value * value;
  }
  EXPECT_LT(error, 1e-6 * energy);
}

}  // namespace
}  // namespace verdel::internal
