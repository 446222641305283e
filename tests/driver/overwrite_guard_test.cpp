#include "driver/overwrite_guard.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "support/errors.hpp"
#include "support/temporary_folder.hpp"

namespace verdel {
namespace {

using testing::TemporaryFolder;
namespace fs = std::filesystem;

/// A project of empty files: the guard reads none.
struct Project {
  TemporaryFolder folder;
  Options options;

  Project() {
    options.mix = folder.touch("mix/Song.wav");
    folder.touch("taps/Kick.wav");
    folder.touch("taps/Hat.L.aif");
    folder.touch("taps/Hat.R.aif");
    folder.touch("out/");
    options.taps = folder.path("taps");
    options.out = folder.path("out");
  }
};

TEST(OverwriteGuard, RefusesWhatWouldDestroyAnInput) {
  const struct {
    const char* what;
    std::function<void(Project&)> prepare;
    std::vector<const char*> named;
  } kCases[] = {
      {"stems over taps",
       [](Project& p) { p.options.out = p.options.taps; },
       {"taps/Kick.wav", "--out"}},
      {"another spelling of the folder",
       [](Project& p) { p.options.out = p.folder.path("out/../taps/."); },
       {"Kick.wav"}},
      {"a hard link to a side",
       [](Project& p) {
         fs::create_hard_link(p.folder.path("taps/Hat.R.aif"), p.folder.path("out/Hat.wav"));
       },
       {"out/Hat.wav", "taps/Hat.R.aif"}},
      {"a symbolic link to the mix",
       [](Project& p) { fs::create_symlink(*p.options.mix, p.folder.path("out/Kick.wav")); },
       {"out/Kick.wav", "mix/Song.wav"}},
      {"a null residual over the mix",
       [](Project& p) {
         p.options.write_null = true;
         fs::create_hard_link(*p.options.mix, p.folder.path("out/_NULL_RESIDUAL.wav"));
       },
       {"_NULL_RESIDUAL.wav", "mix/Song.wav"}},
      {"a null residual over a stem",
       [](Project& p) {
         p.options.write_null = true;
         p.folder.touch("taps/_Null_Residual.flac");
       },
       {"_Null_Residual.flac", "--write-null"}},
      {"a folder in a stem's place",
       [](Project& p) { p.folder.touch("out/Hat.wav/"); },
       {"out/Hat.wav", "folder"}},
      {"a file in the folder's place",
       [](Project& p) { p.options.out = p.folder.touch("occupied"); },
       {"occupied", "--out"}},
  };
  for (const auto& c : kCases) {
    Project project;
    c.prepare(project);
    try {
      refuse_overwriting(project.options);
      ADD_FAILURE() << "accepted: " << c.what;
    } catch (const ValueError& error) {
      for (const char* name : c.named) {
        EXPECT_THAT(error.what(), ::testing::HasSubstr(name)) << c.what;
      }
    }
  }
}

TEST(OverwriteGuard, LetsHarmlessRunsPass) {
  const struct {
    const char* what;
    std::function<void(Project&)> prepare;
  } kCases[] = {
      {"a first run", [](Project& p) { p.options.out = p.folder.path("a/b"); }},
      {"stems of an earlier run",
       [](Project& p) {
         p.folder.touch("out/Kick.wav");
         p.folder.touch("out/_NULL_RESIDUAL.wav");
         p.options.write_null = true;
       }},
      {"a stem of that name without a null residual",
       [](Project& p) { p.folder.touch("taps/_NULL_RESIDUAL.wav"); }},
      {"an input beside the targets",
       [](Project& p) { p.options.out = fs::path(*p.options.mix).parent_path().string(); }},
      {"a taps folder that is missing; planning says so in its turn",
       [](Project& p) { p.options.taps = p.folder.path("none"); }},
      {"names that clash",
       [](Project& p) {
         p.folder.touch("taps/kick.flac");
         p.options.out = p.options.taps;
       }},
  };
  for (const auto& c : kCases) {
    Project project;
    c.prepare(project);
    EXPECT_NO_THROW(refuse_overwriting(project.options)) << c.what;
  }
}

}  // namespace
}  // namespace verdel
