#include "driver/overwrite_guard.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

namespace fs = std::filesystem;

/// A project of empty files: the guard reads none.
struct Project {
  testing::TemporaryFolder folder;
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

using Prepare = std::function<void(Project&)>;

TEST(OverwriteGuard, RefusesWhatWouldDestroyAnInput) {
  const std::pair<Prepare, std::vector<const char*>> kCases[] = {
      {[](Project& p) { p.options.out = p.options.taps; }, {"taps/Kick.wav", "--out"}},
      {[](Project& p) { p.options.out = p.folder.path("out/../taps/."); }, {"Kick.wav"}},
      {[](Project& p) {
         fs::create_hard_link(p.folder.path("taps/Hat.R.aif"), p.folder.path("out/Hat.wav"));
       },
       {"out/Hat.wav", "taps/Hat.R.aif"}},
      {[](Project& p) { fs::create_symlink(*p.options.mix, p.folder.path("out/Kick.wav")); },
       {"out/Kick.wav", "mix/Song.wav"}},
      {[](Project& p) {
         p.options.write_null = true;
         fs::create_hard_link(*p.options.mix, p.folder.path("out/_NULL_RESIDUAL.wav"));
       },
       {"_NULL_RESIDUAL.wav", "mix/Song.wav"}},
      {[](Project& p) {
         p.options.write_null = true;
         p.folder.touch("taps/_Null_Residual.flac");
       },
       {"_Null_Residual.flac", "--write-null"}},
      {[](Project& p) { p.folder.touch("out/Hat.wav/"); }, {"out/Hat.wav", "folder"}},
      {[](Project& p) { p.options.out = p.folder.touch("occupied"); }, {"occupied", "--out"}},
  };
  for (const auto& [prepare, named] : kCases) {
    Project project;
    prepare(project);
    const std::string failure =
        testing::failure_of<ValueError>([&] { refuse_overwriting(project.options); });
    for (const char* name : named) EXPECT_THAT(failure, ::testing::HasSubstr(name));
  }
}

TEST(OverwriteGuard, LetsHarmlessRunsPass) {
  const std::pair<const char*, Prepare> kCases[] = {
      {"a first run", [](Project& p) { p.options.out = p.folder.path("a/b"); }},
      {"stems of an earlier run",
       [](Project& p) {
         p.folder.touch("out/Kick.wav");
         p.folder.touch("out/_NULL_RESIDUAL.wav");
         p.options.write_null = true;
       }},
      {"a stem of that name without a null residual",
       [](Project& p) { p.folder.touch("taps/_NULL_RESIDUAL.wav"); }},
      {"an input beside the targets", [](Project& p) { p.options.out = p.folder.path("mix"); }},
      {"a taps folder that is missing; planning says so in its turn",
       [](Project& p) { p.options.taps = p.folder.path("none"); }},
      {"names that clash; planning again",
       [](Project& p) {
         p.folder.touch("taps/kick.flac");
         p.options.out = p.options.taps;
       }},
  };
  for (const auto& [what, prepare] : kCases) {
    Project project;
    prepare(project);
    EXPECT_NO_THROW(refuse_overwriting(project.options)) << what;
  }
}

}  // namespace
}  // namespace verdel::internal
