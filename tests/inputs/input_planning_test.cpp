#include "inputs/input_planning.hpp"

#include <gtest/gtest.h>

#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

using Lines = std::vector<std::string>;

// "name: file file", the files by their basenames.
std::string text_of(const StemInput& input) {
  std::string text = input.name + ":";
  for (const std::string& file : input.files) text.append(" ").append(basename(file));
  return text;
}

// A folder's entries, what its stems are, or the mix for a file selected in it, or the failure.
struct Case {
  Lines entries, plan;
  std::string selected = "";
};

const Case kCases[] = {
    {{}, {}},
    {{"Kick.L.wav", "kick.r.AIF"}, {"Kick: Kick.L.wav kick.r.AIF"}},
    {{"kick.r.wav", "KICK.l.wav"}, {"KICK: KICK.l.wav kick.r.wav"}},
    {{"Zebra.wav", "apple.WAV", "Mid.R.caf", "mid.L.Flac"},
     {"apple: apple.WAV", "mid: mid.L.Flac Mid.R.caf", "Zebra: Zebra.wav"}},
    {{"L.wav", "r.wav"}, {"L: L.wav", "r: r.wav"}},
    {{"Drums.L.L.wav", "Drums.L.R.wav"}, {"Drums.L: Drums.L.L.wav Drums.L.R.wav"}},
    {{".L.wav", "._a.wav", ".wav", "a.txt", "b.wav.bak"}, {}},
    {{"a..wav", "sub.wav/"}, {"a.: a..wav", "sub: sub.wav"}},
    {{"Caf\xC3\xA9.wav", "Cafe\xCC\x81.wav", "CAFE\xCC\x81.caf"},
     {"“CAFE\xCC\x81.caf” and “Cafe\xCC\x81.wav” and “Caf\xC3\xA9.wav” would print with the same "
      "stem name. Rename one so every source stem has a unique name.\nThey look the same, but "
      "their letters are coded differently: Cafe[U+0301].wav and Caf[U+00E9].wav."}},
    {{"Bass\n.wav", "Bass\n.L.wav", "BASS\n.R.wav"},
     {"“Bass\\x0A.L.wav” and “BASS\\x0A.R.wav” and “Bass\\x0A.wav” would all use the logical stem "
      "name “Bass\\x0A”. Rename the standalone file or the .L/.R pair."}},
    {{"Snare.L.wav"}, {"“Snare.L.wav” is missing its matching .R mono file for “Snare”."}},
    {{"Snare.R.wav"}, {"“Snare.R.wav” is missing its matching .L mono file for “Snare”."}},
    {{"a.L.wav", "A.L.aif", "a.R.wav"},
     {"“A.L.aif” and “a.L.wav” are duplicate left sides for “a”. Keep exactly one .L and one .R "
      "file."}},
    {{"a.L.wav", "a.R.wav", "a.R.caf"},
     {"“a.R.caf” and “a.R.wav” are duplicate right sides for “a”. Keep exactly one .L and one .R "
      "file."}},
    // Pairs come before standalone files, and one key's faults before the next key's.
    {{"a.wav", "a.aif", "c.wav", "c.L.wav", "c.R.wav", "d.L.wav"},
     {"“c.L.wav” and “c.R.wav” and “c.wav” would all use the logical stem name “c”. Rename the "
      "standalone file or the .L/.R pair."}},
    {{"ok.wav", "caf\xE9.wav", "caf\xE9.txt"},
     {"“caf\\xE9.wav” has a name that is not valid UTF-8. Rename it."}},
    {{}, {"mix: mix.wav"}, "mix.wav"},
    {{}, {"mix.l: mix.l.txt"}, "mix.l.txt"},
    {{"Mix.L.wav", "mix.R.aif", "other.L.wav", "m\xE9.R.wav"},
     {"Mix: Mix.L.wav mix.R.aif"},
     "mix.R.aif"},
    {{".L.wav"}, {"“.L.wav” has no mix name before its .L or .R suffix."}, ".L.wav"},
    {{"a.L.wav", ".a.R.wav"},
     {"“a.L.wav” is missing its matching .R mono mix file for “a”."},
     "a.L.wav"},
    {{}, {"“a.R.wav” is missing its matching .L mono mix file for “a”."}, "a.R.wav"},
    {{"mix.L.wav", "mix.R.wav", "MIX.L.aif"},
     {"“MIX.L.aif” and “mix.L.wav” are duplicate left sides for mix “mix”. Keep exactly one .L and "
      "one .R file."},
     "mix.L.wav"},
};

TEST(InputPlanning, GroupsNamesAndRefusesClashes) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(::testing::PrintToString(c.entries) + c.selected);
    const testing::TemporaryFolder folder;
    const std::string taps = folder.path("t\xE9");  // a folder may be called anything
    folder.touch("t\xE9/");
    for (const std::string& entry : c.entries) folder.touch("t\xE9/" + entry);
    Lines plan;
    const std::string failure = testing::failure_of<ValueError>([&] {
      if (!c.selected.empty()) plan.push_back(text_of(plan_mix_input(join(taps, c.selected))));
      if (!c.selected.empty()) return;
      for (const StemInput& stem : plan_stem_inputs(taps)) plan.push_back(text_of(stem));
    });
    if (!failure.empty()) plan.push_back(failure);
    EXPECT_EQ(plan, c.plan);
  }
  EXPECT_THROW(plan_stem_inputs("/no/such/folder"), OSError);
}

TEST(InputPlanning, KeepsAPlainMixPathAndMakesAPairAbsolute) {
  EXPECT_EQ(plan_mix_input("no/../mix.wav").files, Lines{"no/../mix.wav"});
  EXPECT_EQ(testing::failure_of<ValueError>([] { plan_mix_input("a/m\xE9.wav"); }),
            "“a/m\\xE9.wav” has a name that is not valid UTF-8. Rename it.");
  const testing::TemporaryFolder folder;
  folder.touch("m.L.wav");
  folder.touch("m.R.wav");
  EXPECT_EQ(plan_mix_input(relative(folder.path("x/../m.R.wav"), ".")).files,
            (Lines{folder.path("m.L.wav"), folder.path("m.R.wav")}));
}

}  // namespace
}  // namespace verdel::internal
