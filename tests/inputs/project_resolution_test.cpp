#include "inputs/project_resolution.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/errors.hpp"
#include "support/temporary_folder.hpp"

namespace verdel {
namespace {

using ::testing::ElementsAre;

TEST(Resolve, FindsTapsAndMixOrSaysWhatIsMissing) {
  struct Case {
    std::vector<std::string> tree;   // a "/" at the end makes a folder
    std::vector<std::string> lines;  // what is printed, or the one text of the failure
  };
  const std::vector<Case> cases = {
      {{"stems/a.wav", "taps/b.WAV", "taps/.c.aif", "taps/.caf", "taps/n.txt", "mix/m.wav"},
       {"mix   mix/m.wav", "taps  taps  (3 files)", "out   out", ""}},
      {{"media/stems+mix/taps/", "mix/notes.txt", "master/m.flac"},
       {"mix   master/m.flac", "taps  media/stems+mix/taps  (0 files)", "out   media/stems+mix/out",
        ""}},
      {{"taps/", "mix/m.wav", "mix/._m.wav", "master/x.wav"},
       {"More than one file in mix:\n  ._m.wav\n  m.wav\nLeave one, or pass --mix."}},
      {{"taps/", "Mix/a.wav", "Mix/b\xE9.wav"},
       {"More than one file in Mix:\n  a.wav\n  b\\xE9.wav\nLeave one, or pass --mix."}},
      {{"mix/m.wav", "tap/"}, {"Could not find a taps folder. Pass --taps."}},
      {{"mix/m.wav", "taps"}, {"Could not find a taps folder. Pass --taps."}},
      {{"taps/"}, {"Could not find the mix. Pass --mix."}},
  };
  for (const Case& c : cases) {
    const testing::TemporaryFolder folder;
    for (const std::string& path : c.tree) folder.touch(path);
    ProjectPaths paths{.project = folder.path()};
    try {
      EXPECT_EQ(resolve(paths), c.lines);
    } catch (const ValueError& failure) {
      EXPECT_THAT(c.lines, ElementsAre(failure.what()));
    }
  }
}

TEST(Resolve, LeavesGivenPathsAndFillsTheOthers) {
  const testing::TemporaryFolder folder;
  ProjectPaths given{
      .project = folder.path("x/.."), .mix = folder.path("y/m.wav"), .taps = folder.path("t/")};
  EXPECT_THAT(resolve(given),
              ElementsAre("mix   y/m.wav", "taps  t  (0 files)", "out   t/out", ""));
  EXPECT_EQ(given.taps, folder.path("t/"));
  EXPECT_EQ(given.out, folder.path("t/out"));
}

TEST(Resolve, SearchesNothingForASuggestion) {
  const testing::TemporaryFolder folder;
  folder.touch("mix/m.wav");
  ProjectPaths paths{.project = folder.path("."), .taps = "", .suggest_excerpt = 1e-9};
  EXPECT_THROW(resolve(paths), ValueError);
  paths.mix = "m";
  EXPECT_THAT(resolve(paths), ::testing::IsEmpty());
  EXPECT_EQ(paths.taps, folder.path());
  EXPECT_EQ(paths.out, folder.path());
}

}  // namespace
}  // namespace verdel
