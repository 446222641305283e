#include "delivery/unfinished_file.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

namespace fs = std::filesystem;

TEST(UnfinishedFile, OnlyThoseThatNobodyWritesAreSwept) {
  const testing::TemporaryFolder folder;
  const std::string elsewhere = folder.touch("elsewhere/.verdel-00000000.part");
  fs::create_symlink(elsewhere, folder.path(".verdel-linklink.part"));
  folder.touch(".verdel-folderfo.part/");
  for (const char* name : {".verdel-short.part", ".verdel-toolonger.part", ".verdel-UPPERCAS.part",
                           "verdel-abcdefgh.part", ".verdel-abcdefgh.wav", "stem.wav"}) {
    folder.touch(name);
  }
  UnfinishedFile written(folder.path("stem.wav"));
  const auto before = testing::contents_of(folder.path());
  for (const char* name : {".verdel-abcdefgh.part", ".verdel-01234567.part"}) folder.touch(name);
  sweep_unfinished_files(folder.path());
  sweep_unfinished_files(folder.path("not there"));
  EXPECT_EQ(testing::contents_of(folder.path()), before);

  ASSERT_EQ(write(written.descriptor(), "new", 3), 3);
  written.take_target_name();
  EXPECT_EQ(testing::bytes_of(folder.path("stem.wav")), "new");
  EXPECT_EQ(testing::contents_of(folder.path()).size(), before.size() - 1);
}

}  // namespace
}  // namespace verdel::internal
