#include "driver/folder_proof.hpp"

#include <gmock/gmock.h>

#include "driver/small_projects.hpp"

namespace verdel::internal {
namespace {

using Stems = std::vector<std::pair<const char*, testing::Channels>>;
namespace fs = std::filesystem;

// A part of half the mix, but for one sample of the second channel. The whole is more than is read
// at once.
testing::Channels half(std::size_t start = 0, double scale = 1.0, std::size_t at = 0,
                       double off = 0.0) {
  testing::Channels sound(2);
  for (std::size_t i = start; i < 9000; ++i) {
    sound[0].push_back(scale * static_cast<double>(i % 64) / 256.0);
    sound[1].push_back(-0.5 * sound[0].back());
  }
  sound[1][at] += off;
  return sound;
}

struct Case {
  Stems stems;
  const char* option;
  const char* out;                    // a part of what is printed as text or as JSON
  const char* error;                  // a part of it; nothing where the folder passes
  std::vector<const char*> old = {};  // the stems of an earlier day, the oldest first
};

TEST(FolderProof, TellsWhatTheStemsLeaveOfTheMix) {
  const auto all = half(), part = half(4500), nan = half(0, 1.0, 77, std::nan(""));
  const Stems both = {{"a", all}, {"b", all}}, parts = {{"a", part}, {"b", part}};
  const Stems off = {{"a", all}, {"b", half(0, 1.0, 8500, 1.0)}};
  const Stems part_off = {{"a", part}, {"b", half(4500, 1.0, 9, 0.25)}};
  const Stems not_a_number = {{"a", all}, {"b", {nan[1], nan[0]}}};
  const char* const no_sum = "the stems do not add up to the mix\n";
  const Case kCases[] = {
      {{}, "", "", "no stems in "},
      {{{"a", half(0, 1.99997)}, {"b", half(0, 3e-5)}}, "", "2 stems, ", ""},
      {{{"a.L", {all[0]}}, {"a.R", {all[1]}}, {"b", all}}, "", "9000 frames from 0, 1000 Hz\n", ""},
      {{{"a", all}, {"_NULL_RESIDUAL", all}}, "", "2 stems, ", ""},
      {{{"a", all}, {"b", all}, {"_NULL_RESIDUAL", half(0, 3e-5)}}, "", "2 stems, ", ""},
      {off, "", "\nchannel 2: peak 0.0 dBFS at sample 8500 (8.500 s), rms -39.5 dBFS\n", no_sum},
      {off, "--threshold=0", "FAIL\n", no_sum},
      {off, "--threshold=1e-9", "PASS\n", ""},
      {off, "--threshold=inf", "", "error: --threshold takes a finite"},
      {off, "--threshold=nan", "", "error: --threshold takes a finite"},
      {not_a_number, "", "null residual: nan dBFS  FAIL", no_sum},
      {not_a_number, "", R"([{"peak_dbfs": null, "rms_dbfs": null, "worst_sample": 77})", no_sum},
      {parts, "", "", "4500 frames long, the mix 9000. If"},
      {parts, "--excerpt-start=99", R"("start": 4500, "frames": 4500, "sample_rate": 1000, )", ""},
      {part_off, "--excerpt-start=4.5", "-12.0 dBFS at sample 4509 (4.509 s)", no_sum},
      {part_off, "--excerpt-start=4.5", R"("worst_sample": 4509}]})", no_sum},
      {{{"a", half(7)}, {"b", all}, {"c", all}}, "", "", "a.wav”: 8993 frames, where the others"},
      {{{"a", part}, {"b", all}}, "", "", "/a.wav”: 4500 frames, where the others have 9000\nA f"},
      {{{"a", {all[0]}}}, "", "", "1 channel, where the others have 2\n"},
      {{both[0], both[1], {"c", half(0, 0.25)}}, "", "", "/c.wav” the others do. Such", {"a"}},
      {{both[0], both[1], {"c", all}, {"d", all}}, "", "", "a.wav” the others do", {"c", "a"}}};
  for (const Case& c : kCases) {
    const testing::TemporaryFolder folder;
    testing::write_audio(folder.path("m.wav"), half(0, 2.0), 1000);
    const auto path = [&](const char* stem) { return folder.touch("s/") + stem + ".wav"; };
    for (const auto& [stem, sound] : c.stems) testing::write_audio(path(stem), sound, 1000);
    auto age = fs::file_time_type::clock::now() - std::chrono::hours(9);
    for (const char* stem : c.old) fs::last_write_time(path(stem), age += std::chrono::hours(1));
    std::vector<std::string> words = {"--mix", folder.path("m.wav"), "--stems", folder.touch("s/")};
    if (*c.option != '\0') words.push_back(c.option);
    const auto text = testing::run_entry(verify_main, words);
    words.push_back("--json");
    const auto json = testing::run_entry(verify_main, words);
    SCOPED_TRACE(text.out + json.out + text.err);
    const std::string error = c.error;
    EXPECT_EQ(text.status, error.empty() ? 0 : error.starts_with("error:") ? 2 : 1);
    EXPECT_THAT(text.out + json.out, ::testing::HasSubstr(c.out));
    EXPECT_THAT(text.err, ::testing::HasSubstr(error));
    EXPECT_EQ(std::tie(text.status, text.err), std::tie(json.status, json.err));
  }
}

}  // namespace
}  // namespace verdel::internal
