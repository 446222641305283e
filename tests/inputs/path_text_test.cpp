#include "inputs/path_text.hpp"

#include <gtest/gtest.h>

#include <filesystem>

namespace verdel::internal {
namespace {

TEST(PathText, SplitsPathsAndNames) {
  struct Case {
    const char *whole, *first, *second;
  };
  for (const auto& [path, dir, base] :
       {Case{"a/b.wav", "a", "b.wav"}, Case{"b.wav", "", "b.wav"}, Case{"a/b/", "a/b", ""},
        Case{"/b", "/", "b"}, Case{"//b", "//", "b"}, Case{"a//b", "a", "b"}, Case{"", "", ""}}) {
    EXPECT_EQ(basename(path), base) << path;
    EXPECT_EQ(dirname(path), dir) << path;
  }
  // An extension stands behind something else than dots.
  for (const auto& [name, stem, extension] :
       {Case{".wav", ".wav", ""}, Case{"..wav", "..wav", ""}, Case{"a..wav", "a.", ".wav"},
        Case{".a.wav", ".a", ".wav"}, Case{"a.", "a", "."}, Case{"a", "a", ""}, Case{"", "", ""},
        Case{"a.b.L.WAV", "a.b.L", ".WAV"}}) {
    EXPECT_EQ(split_extension(name).stem, stem) << name;
    EXPECT_EQ(split_extension(name).extension, extension) << name;
  }
}

TEST(PathText, JoinsAndRelates) {
  EXPECT_EQ(join("a", "b"), "a/b");
  EXPECT_EQ(join("a/", "b"), "a/b");
  EXPECT_EQ(join("", "b"), "b");
  EXPECT_EQ(join("a", "/b"), "/b");
  EXPECT_EQ(absolute("/a//b/./c/../d/"), "/a/b/d");
  EXPECT_EQ(absolute("/../.."), "/");
  EXPECT_EQ(absolute("x"), join(std::filesystem::current_path().string(), "x"));
  EXPECT_EQ(relative("/a/b", "/a/b/"), ".");
  EXPECT_EQ(relative("/a/x", "/a/b/c"), "../../x");
  EXPECT_EQ(relative("/abc", "/ab"), "../abc");
  EXPECT_EQ(relative("m", "."), "m");
}

}  // namespace
}  // namespace verdel::internal
