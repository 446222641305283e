#include "inputs/path_text.hpp"

#include <gtest/gtest.h>

#include <filesystem>

namespace verdel {
namespace {

TEST(PathText, SplitsAtTheLastSlash) {
  struct Case {
    const char *path, *base, *dir;
  };
  for (const Case& c :
       {Case{"a/b.wav", "b.wav", "a"}, Case{"b.wav", "b.wav", ""}, Case{"a/b/", "", "a/b"},
        Case{"/b", "b", "/"}, Case{"//b", "b", "//"}, Case{"a//b", "b", "a"}, Case{"", "", ""}}) {
    EXPECT_EQ(basename(c.path), c.base) << c.path;
    EXPECT_EQ(dirname(c.path), c.dir) << c.path;
  }
}

TEST(PathText, FindsTheExtensionBehindALetter) {
  struct Case {
    const char *name, *stem, *extension;
  };
  for (const Case& c :
       {Case{"a.wav", "a", ".wav"}, Case{".wav", ".wav", ""}, Case{"..wav", "..wav", ""},
        Case{"a..wav", "a.", ".wav"}, Case{".a.wav", ".a", ".wav"}, Case{"a.", "a", "."},
        Case{"a", "a", ""}, Case{"", "", ""}, Case{"a.b.L.WAV", "a.b.L", ".WAV"}}) {
    EXPECT_EQ(split_extension(c.name).stem, c.stem) << c.name;
    EXPECT_EQ(split_extension(c.name).extension, c.extension) << c.name;
  }
  EXPECT_TRUE(has_audio_extension(".AiFf"));
  EXPECT_FALSE(has_audio_extension("wav"));
  EXPECT_FALSE(has_audio_extension(".mp3"));
  EXPECT_TRUE(ends_like_audio(".wav"));
  EXPECT_FALSE(ends_like_audio("a.wav.txt"));
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
  EXPECT_EQ(relative("/a/b/c", "/a"), "b/c");
  EXPECT_EQ(relative("/a/x", "/a/b/c"), "../../x");
  EXPECT_EQ(relative("/abc", "/ab"), "../abc");
  EXPECT_EQ(relative("m", "."), "m");
}

}  // namespace
}  // namespace verdel
