#include "inputs/project_resolution.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/errors.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

using ::testing::ElementsAre;

TEST(Resolve, FindsTapsAndMixOrSaysWhatIsMissing) {
  // A tree, its folders with a "/" at the end, and what is printed or the failure's text.
  using Lines = std::vector<std::string>;
  const std::pair<Lines, Lines> kCases[] = {
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
      {{"taps/"}, {"Could not find the mix. Pass --mix."}},
  };
  for (const auto& [tree, lines] : kCases) {
    const testing::TemporaryFolder folder;
    for (const std::string& path : tree) folder.touch(path);
    ProjectPaths paths{.project = folder.path()};
    try {
      EXPECT_EQ(resolve(paths), lines);
    } catch (const ValueError& failure) {
      EXPECT_THAT(lines, ElementsAre(failure.what()));
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

}  // namespace
}  // namespace verdel::internal
