#include "driver/folder_proof.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <limits>

#include "driver/small_projects.hpp"

namespace verdel::internal {
namespace {

using testing::Channels;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

// Longer than is read at once.
constexpr std::size_t kFrames = 9000;
constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();

// A part of what the mix is twice of, but for one sample of the second channel.
Channels half(std::size_t start = 0, double scale = 1.0, std::size_t at = 0, double off = 0.0) {
  Channels sound(2);
  for (std::size_t i = start; i < kFrames; ++i) {
    sound[0].push_back(scale * static_cast<double>(i % 64) / 256.0);
    sound[1].push_back(-0.5 * sound[0].back());
  }
  sound[1][at] += off;
  return sound;
}

using Stems = std::vector<std::pair<const char*, Channels>>;

struct Case {
  Stems stems;
  const char* option;
  const char* out;                    // a part of it
  const char* error;                  // a part of it; nothing where the folder passes
  std::vector<const char*> old = {};  // the stems of an earlier day, the oldest first
};

TEST(FolderProof, TellsWhatTheStemsLeaveOfTheMix) {
  const Channels whole = half(), part = half(4500), nan = half(0, 1.0, 77, kNotANumber);
  const Channels left = {whole[0]}, right = {whole[1]};
  const Stems both = {{"a", whole}, {"b", whole}}, parts = {{"a", part}, {"b", part}};
  const Stems off = {{"a", whole}, {"b", half(0, 1.0, 8500, 0.125)}};
  const Stems part_off = {{"a", part}, {"b", half(4500, 1.0, 9, 0.25)}};
  const Stems not_a_number = {{"a", whole}, {"b", {nan[1], nan[0]}}};
  const Stems four = {{"a", whole}, {"b", whole}, {"c", whole}, {"d", whole}};
  const Case kCases[] = {
      {{}, "", "", "no stems in "},
      {both, "", "2 stems, 9000 frames from 0, 1000 Hz\n", ""},
      {{{"a.L", left}, {"a.R", right}, {"b", whole}}, "", "2 stems, ", ""},
      {{{"a", whole}, {"_NULL_RESIDUAL", whole}}, "", "2 stems, ", ""},
      {{{"a", whole}, {"b", whole}, {"_NULL_RESIDUAL", half(0, 3e-5)}}, "", "2 stems, ", ""},
      {off, "",
       "channel 1: peak -999.0 dBFS at sample 0 (0.000 s), rms -999.0 dBFS\n"
       "channel 2: peak -18.1 dBFS at sample 8500 (8.500 s), rms -57.6 dBFS\n"
       "null residual: -18.1 dBFS  FAIL\n",
       "the stems do not add up to the mix\n"},
      {off, "--threshold=-18", "PASS\n", ""},
      {off, "--threshold=inf", "", "error: --threshold takes a finite"},
      {off, "--threshold=nan", "", "error: --threshold takes a finite"},
      {not_a_number, "", "channel 1: peak nan dBFS at sample 77 (", "not add up"},
      {not_a_number, "", "null residual: nan dBFS  FAIL", "not add up"},
      {not_a_number, "--json", R"("peak_dbfs": null, "passed": false)", "not add up"},
      {parts, "", "", "4500 frames long, the mix 9000. If"},
      {parts, "--excerpt-start=99", "4500 frames from 4500, ", ""},
      {parts, "--excerpt-start=4.499", "4500 frames from 4499, ", "not add up"},
      {part_off, "--excerpt-start=4.5", "-12.0 dBFS at sample 4509 (4.509 s)", "not add up"},
      {{{"a", half(7)}, {"b", whole}, {"c", whole}},
       "",
       "",
       "/a.wav”: 8993 frames, where the others have 9000\nA file of another length"},
      {{{"a", part}, {"b", whole}}, "", "", "/a.wav”: 4500 frames, where"},
      {{{"a", left}}, "", "", "1 channels, where the others have 2\n"},
      {{four[0], four[1], four[2]}, "", "3 stems", "/b.wav” the others do. Such", {"b"}},
      {four, "", "4 stems", "/a.wav” the others do. Such", {"c", "a"}},
  };
  for (const Case& c : kCases) {
    const testing::TemporaryFolder folder;
    testing::write_audio(folder.path("mix.wav"), half(0, 2.0), 1000);
    folder.touch("stems/");
    const auto path = [&](const char* stem) { return folder.path("stems/") + stem + ".wav"; };
    for (const auto& [stem, sound] : c.stems) testing::write_audio(path(stem), sound, 1000);
    for (std::size_t i = 0; i < c.old.size(); ++i) {
      const auto age = std::chrono::hours(9 - i);
      fs::last_write_time(path(c.old[i]), fs::file_time_type::clock::now() - age);
    }
    const std::string mix = folder.path("mix.wav"), stems = folder.path("stems");
    std::vector<std::string> arguments = {"--mix", mix, "--stems", stems};
    if (*c.option != '\0') arguments.push_back(c.option);
    const auto result = testing::run_entry(verify_main, arguments);
    SCOPED_TRACE(result.out + result.err);
    const std::string error = c.error;
    EXPECT_EQ(result.status, error.empty() ? 0 : error.starts_with("error:") ? 2 : 1);
    EXPECT_THAT(result.out, HasSubstr(c.out));
    EXPECT_THAT(result.err, HasSubstr(error));
    EXPECT_EQ(result.err.empty(), result.status == 0);
  }
}

}  // namespace
}  // namespace verdel::internal
