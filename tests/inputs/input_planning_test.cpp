#include "inputs/input_planning.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

// "name: file file", the files by their basenames.
std::string text_of(const StemInput& input) {
  std::string text = input.name + ":";
  for (const std::string& file : input.files) text.append(" ").append(basename(file));
  return text;
}

// The plan of a folder with these entries, or the failure's text.
std::vector<std::string> plan_of(const std::vector<std::string>& entries) {
  const testing::TemporaryFolder folder;
  for (const std::string& entry : entries) folder.touch(entry);
  std::vector<std::string> plan;
  const std::string failure = testing::failure_of<ValueError>([&] {
    for (const StemInput& stem : plan_stem_inputs(folder.path())) plan.push_back(text_of(stem));
  });
  return failure.empty() ? plan : std::vector{failure};
}

TEST(PlanStemInputs, GroupsNamesAndRefusesClashes) {
  using Lines = std::vector<std::string>;
  const std::pair<Lines, Lines> kCases[] = {
      {{}, {}},
      {{"Kick.L.wav", "kick.r.AIF"}, {"Kick: Kick.L.wav kick.r.AIF"}},
      {{"kick.r.wav", "KICK.l.wav"}, {"KICK: KICK.l.wav kick.r.wav"}},
      {{"Zebra.wav", "apple.WAV", "Mid.R.caf", "mid.L.Flac"},
       {"apple: apple.WAV", "mid: mid.L.Flac Mid.R.caf", "Zebra: Zebra.wav"}},
      {{"L.wav", "r.wav"}, {"L: L.wav", "r: r.wav"}},
      {{"Drums.L.L.wav", "Drums.L.R.wav"}, {"Drums.L: Drums.L.L.wav Drums.L.R.wav"}},
      {{".L.wav", "._a.wav", ".wav", "a.txt", "b.wav.bak"}, {}},
      {{"a..wav", "sub.wav/"}, {"a.: a..wav", "sub: sub.wav"}},
      {{"Caf\xC3\xA9.wav", "Cafe\xCC\x81.wav"},
       {"“Cafe\xCC\x81.wav” and “Caf\xC3\xA9.wav” would print with the same stem name. Rename one "
        "so every source stem has a unique name."}},
      {{"Bass.wav", "Bass.L.wav", "BASS.R.wav"},
       {"“Bass.L.wav” and “BASS.R.wav” and “Bass.wav” would all use the logical stem name “Bass”. "
        "Rename the standalone file or the .L/.R pair."}},
      {{"Snare.L.wav"}, {"“Snare.L.wav” is missing its matching .R mono file for “Snare”."}},
      {{"Snare.R.wav"}, {"“Snare.R.wav” is missing its matching .L mono file for “Snare”."}},
      {{"a.L.wav", "A.L.aif", "a.R.wav"},
       {"“A.L.aif” and “a.L.wav” are duplicate left sides for “a”. Keep exactly one .L and one .R "
        "file."}},
      {{"a.L.wav", "a.R.wav", "a.R.caf"},
       {"“a.R.caf” and “a.R.wav” are duplicate right sides for “a”. Keep exactly one .L and one "
        ".R file."}},
      // Pairs come before standalone files, and one key's faults before the next key's.
      {{"a.wav", "a.aif", "c.wav", "c.L.wav", "c.R.wav", "d.L.wav"},
       {"“c.L.wav” and “c.R.wav” and “c.wav” would all use the logical stem name “c”. Rename the "
        "standalone file or the .L/.R pair."}},
      {{"ok.wav", "caf\xE9.wav", "caf\xE9.txt"},
       {"“caf\\xE9.wav” has a name that is not valid UTF-8. Rename it."}},
  };
  for (const auto& [entries, plan] : kCases) {
    EXPECT_EQ(plan_of(entries), plan) << ::testing::PrintToString(entries);
  }
  EXPECT_THROW(plan_stem_inputs("/no/such/folder"), OSError);
}

TEST(PlanMixInput, TakesTheFileOrItsPair) {
  struct Case {
    std::vector<std::string> entries;
    std::string selected, plan;
  };
  const Case kCases[] = {
      {{}, "mix.wav", "mix: mix.wav"},
      {{}, "mix.l.txt", "mix.l: mix.l.txt"},
      {{"Mix.L.wav", "mix.R.aif", "other.L.wav", "m\xE9.R.wav"},
       "mix.R.aif",
       "Mix: Mix.L.wav mix.R.aif"},
      {{".L.wav"}, ".L.wav", "“.L.wav” has no mix name before its .L or .R suffix."},
      {{"a.L.wav", ".a.R.wav"},
       "a.L.wav",
       "“a.L.wav” is missing its matching .R mono mix file for “a”."},
      {{}, "a.R.wav", "“a.R.wav” is missing its matching .L mono mix file for “a”."},
      {{"mix.L.wav", "mix.R.wav", "MIX.L.aif"},
       "mix.L.wav",
       "“MIX.L.aif” and “mix.L.wav” are duplicate left sides for mix “mix”. Keep exactly one .L "
       "and one .R file."},
  };
  for (const Case& c : kCases) {
    const testing::TemporaryFolder folder;
    for (const std::string& entry : c.entries) folder.touch(entry);
    std::string plan;
    const std::string failure = testing::failure_of<ValueError>(
        [&] { plan = text_of(plan_mix_input(folder.path(c.selected))); });
    EXPECT_EQ(failure + plan, c.plan);
  }
}

TEST(PlanMixInput, KeepsAPlainPathAndMakesAPairAbsolute) {
  EXPECT_EQ(plan_mix_input("no/../mix.wav").files, std::vector<std::string>{"no/../mix.wav"});
  EXPECT_THROW(plan_mix_input("m\xE9.wav"), ValueError);

  const testing::TemporaryFolder folder;
  folder.touch("m.L.wav");
  folder.touch("m.R.wav");
  const std::string from_here = relative(folder.path("x/../m.R.wav"), ".");
  EXPECT_EQ(plan_mix_input(from_here).files,
            (std::vector<std::string>{folder.path("m.L.wav"), folder.path("m.R.wav")}));
}

}  // namespace
}  // namespace verdel::internal
