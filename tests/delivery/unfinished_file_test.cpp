#include "delivery/unfinished_file.hpp"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

namespace fs = std::filesystem;

TEST(UnfinishedFile, GoesBehindALinkAndIsSweptWhenNobodyWritesIt) {
  const testing::TemporaryFolder folder;
  fs::create_symlink(folder.touch("elsewhere/.verdel-00000000.part"),
                     folder.path(".verdel-linklink.part"));
  for (const char* name : {".verdel-folderfo.part/", ".verdel-short.part", ".verdel-UPPERCAS.part",
                           ".verdel-toolonger.part", "_verdel-abcdefgh.part", "far/kick.wav",
                           ".verdel-abcdefgh.opus"}) {
    folder.touch(name);
  }
  mkfifo(folder.path(".verdel-fifofifo.part").c_str(), 0600);
  fs::create_symlink("far/kick.wav", folder.path("near.wav"));
  fs::create_symlink("near.wav", folder.path("stem.wav"));
  UnfinishedFile written(folder.path("stem.wav"));
  const auto before = testing::contents_of(folder.path());
  EXPECT_THAT(::testing::PrintToString(before),
              ::testing::ContainsRegex("far/\\.verdel-[a-z0-9]{8}\\.part"));
  folder.touch(".verdel-abcdefgh.part");
  folder.touch("far/.verdel-01234567.part");
  sweep_unfinished_files(folder.path(), {folder.path("stem.wav")});
  sweep_unfinished_files(folder.path("not there"), {});
  EXPECT_EQ(testing::contents_of(folder.path()), before);

  ASSERT_EQ(write(written.descriptor(), "new", 3), 3);
  written.take_target_name();
  EXPECT_EQ(fs::read_symlink(folder.path("stem.wav")), "near.wav");
  EXPECT_EQ(testing::bytes_of(folder.path("far/kick.wav")), "new");
  EXPECT_EQ(testing::contents_of(folder.path()).size(), before.size() - 1);
}

}  // namespace
}  // namespace verdel::internal
