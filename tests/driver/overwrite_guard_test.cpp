#include "driver/overwrite_guard.hpp"

#include <gmock/gmock.h>

#include <cstdlib>

#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

struct Case {
  const char* out;
  const char* command;  ///< of a shell in the project's folder
  const char* words;    ///< nothing where the run is let pass
  bool write_null = false;
};

TEST(OverwriteGuard, RefusesWhatWouldBeDestroyedOrCannotBeWritten) {
  const std::string project =
      "mkdir mix taps out; touch mix/Song.wav taps/Kick.wav taps/Hat.L.aif taps/Hat.R.aif; ";
  const Case kCases[] = {
      {"out/../taps/.", ":", "/Kick.wav” would be overwritten: it is the same"},
      {"out", "ln taps/Hat.R.aif out/Hat.wav", "taps/Hat.R.aif”"},
      {"out", "ln -s ../mix/Song.wav out/Kick.wav", "is the same file as the input “"},
      {"out", "ln mix/Song.wav out/_NULL_RESIDUAL.wav", "mix/Song.wav”", true},
      {"out", "touch taps/_Null_Residual.flac", "leave out --write-null", true},
      {"out", "mkdir out/Hat.wav", "out/Hat.wav” is a folder"},
      {"mix/Song.wav", ":", "” is a file, but"},
      {"mix/Song.wav/a", ":", "Not a directory"},
      {"out", "mkfifo out/Hat.wav", "not a regular file"},
      {"out", "ln -s none out/Kick.wav", "out/Kick.wav”: a link stands there that leads nowhere"},
      {"link/a", "ln -s none link", "link/a”: a link stands there"},
      {"out", "ln -s Hat.wav out/Kick.wav; touch out/Hat.wav", "are one file by way of a link"},
      {"/dev/fd", ":", "cannot write “/dev/fd/Hat.wav”"},
      {"/dev/fd/new", ":", "cannot make the output folder “/dev/fd/new”"},
      {"a/b", ":", ""},
      {"mix", "touch mix/Kick.wav mix/_NULL_RESIDUAL.wav", "", true},
      {"out", "touch far; ln -s ../far out/Kick.wav", ""},
      {"out", "touch taps/_NULL_RESIDUAL.wav", ""},
      // What the run itself says in its turn.
      {"out", "ln -s none out/Kick.wav; rm mix/Song.wav", ""},
      {"out", "ln -s none out/Kick.wav; rm -r taps", ""},
      {"taps", "touch taps/kick.flac", ""}};
  for (const Case& c : kCases) {
    const testing::TemporaryFolder folder;
    ASSERT_EQ(std::system(("cd " + folder.path() + ";" + project + c.command).c_str()), 0);
    Options options;
    options.mix = folder.path("mix/Song.wav");
    options.taps = folder.path("taps");
    options.out = *c.out == '/' ? c.out : folder.path(c.out);
    options.write_null = c.write_null;
    const auto before = testing::contents_of(folder.path());
    const auto failure = testing::failure_of<std::exception>([&] { refuse_overwriting(options); });
    EXPECT_THAT(failure, ::testing::HasSubstr(c.words));
    EXPECT_EQ(failure.empty(), *c.words == '\0') << failure;
    EXPECT_EQ(testing::contents_of(folder.path()), before) << c.words;
  }
}

}  // namespace
}  // namespace verdel::internal
