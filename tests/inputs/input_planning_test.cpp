#include "inputs/input_planning.hpp"

#include <gtest/gtest.h>

#include "inputs/path_text.hpp"
#include "inputs/project_resolution.hpp"
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
    {{"kick.r.AIF", "KICK.l.wav"}, {"KICK: KICK.l.wav kick.r.AIF"}},
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
    {{"Mix.L.wav", "mix.R.aif", "other.L.wav", "m\xE9.R.wav"},
     {"Mix: Mix.L.wav mix.R.aif"},
     "mix.R.aif"},
    {{".L.wav"}, {"“.L.wav” has no mix name before its .L or .R suffix."}, ".L.wav"},
    {{"a.L.wav", ".a.R.wav"},
     {"“a.L.wav” is missing its matching .R mono mix file for “a”."},
     "a.L.wav"},
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
      if (!c.selected.empty()) {
        const StemInput mix = plan_mix_input(relative(taps, ".") + "/x/../" + c.selected);
        plan.push_back(text_of(mix));
        EXPECT_TRUE(mix.files.size() == 1 || dirname(mix.files[1]) == taps);
        return;
      }
      for (const StemInput& stem : plan_stem_inputs(taps)) plan.push_back(text_of(stem));
    });
    if (!failure.empty()) plan.push_back(failure);
    EXPECT_EQ(plan, c.plan);
  }
  EXPECT_THROW(plan_stem_inputs("/no/such/folder"), OSError);
  EXPECT_EQ(testing::failure_of<ValueError>([] { plan_mix_input("a/m\xE9.wav"); }),
            "“a/m\\xE9.wav” has a name that is not valid UTF-8. Rename it.");
  EXPECT_EQ(plan_mix_input("no/../mix.wav").files, Lines{"no/../mix.wav"});
}

// A tree, its folders with a "/" at the end, and what is printed or the failure's text.
const std::pair<Lines, Lines> kProjects[] = {
    {{"stems/a.wav", "taps/b.WAV", "taps/.c.aif", "taps/.caf", "taps/n.txt", "mix/m.wav"},
     {"mix   mix/m.wav", "taps  taps  (3 files)", "out   out", ""}},
    {{"media/stems+mix/taps/", "mix/notes.txt", "master/m.flac"},
     {"mix   master/m.flac", "taps  media/stems+mix/taps  (0 files)", "out   media/stems+mix/out",
      ""}},
    {{"taps/", "Mix/a.wav", "Mix/b\xE9.wav", "Mix/._a.wav", "master/x.wav"},
     {"More than one file in Mix:\n  ._a.wav\n  a.wav\n  b\\xE9.wav\nLeave one, or pass --mix."}},
    {{"mix/m.wav", "tap/"}, {"Could not find a taps folder. Pass --taps."}},
    {{"taps/"}, {"Could not find the mix. Pass --mix."}}};

TEST(Resolve, FindsTapsAndMixOrSaysWhatIsMissing) {
  for (const auto& [tree, lines] : kProjects) {
    const testing::TemporaryFolder folder;
    for (const std::string& path : tree) folder.touch(path);
    ProjectPaths paths{.project = folder.path()};
    Lines printed;
    const auto failure = testing::failure_of<ValueError>([&] { printed = resolve(paths); });
    if (!failure.empty()) printed.push_back(failure);
    EXPECT_EQ(printed, lines);
  }
  const testing::TemporaryFolder folder;
  ProjectPaths given{
      .project = folder.path("x/.."), .mix = folder.path("y/m.wav"), .taps = folder.path("t/")};
  EXPECT_EQ(resolve(given), (Lines{"mix   y/m.wav", "taps  t  (0 files)", "out   t/out", ""}));
  EXPECT_EQ(*given.taps + *given.out, folder.path("t/") + folder.path("t/out"));
}

TEST(PathText, IsCutAndJoined) {
  const auto split = [](const char* name) {
    const auto [stem, extension] = split_extension(name);
    return stem + "|" + extension;
  };
  const std::pair<std::string, std::string> kTexts[] = {
      {dirname("a/b.wav") + "|" + basename("a/b.wav"), "a|b.wav"},
      {dirname("b.wav") + "|" + basename("b.wav"), "|b.wav"},
      {dirname("a//b/") + "|" + basename("a//b/"), "a//b|"},
      {dirname("//b") + "|" + basename("//b"), "//|b"},
      {split(".wav"), ".wav|"},
      {split("..wav"), "..wav|"},
      {split("a..wav"), "a.|.wav"},
      {split(".a.wav"), ".a|.wav"},
      {split("a."), "a|."},
      {join("a/", "b") + join("", "b") + join("a", "/b"), "a/bb/b"},
      {absolute("/a//b/./c/../d/") + absolute("/../.."), "/a/b/d/"},
      {absolute("x"), join(std::filesystem::current_path().string(), "x")},
      {relative("/a/b", "/a/b/"), "."},
      {relative("/a/x", "/a/b/c"), "../../x"},
      {relative("/abc", "/ab"), "../abc"}};
  for (const auto& [text, expected] : kTexts) EXPECT_EQ(text, expected);
}

}  // namespace
}  // namespace verdel::internal
