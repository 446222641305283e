#include "support/unicode_text.hpp"

#include <gtest/gtest.h>

namespace verdel::internal {
namespace {

TEST(UnicodeText, TellsUtf8FromOtherBytes) {
  for (const char* valid : {"", "Kick", "Straße", "\xF0\x9F\xA5\x81", "\xEF\xBF\xBD"}) {
    EXPECT_TRUE(is_valid_utf8(valid)) << valid;
  }
  // Latin-1, a cut sequence, an overlong slash, half a surrogate pair, too high, a lone tail.
  for (const char* invalid :
       {"caf\xE9", "\xF0\x9F\xA5", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "a\x80"}) {
    EXPECT_FALSE(is_valid_utf8(invalid)) << printable(invalid);
  }
}

TEST(UnicodeText, NormalisesAndLowers) {
  EXPECT_EQ(nfc("e\xCC\x81 A\xCC\x8A"), "\xC3\xA9 \xC3\x85");
  EXPECT_EQ(nfc("\xE2\x84\xAB"), "\xC3\x85");  // the angstrom sign is the letter
  EXPECT_EQ(lower("KICK \xC3\x89"), "kick \xC3\xA9");
  EXPECT_EQ(lower("ΣΟΦΟΣ ΟΔΟΣ"), "σοφος οδος");
  EXPECT_EQ(lower("İ"), "i\xCC\x87");  // one letter becomes two, in any locale
  EXPECT_EQ(lower("I"), "i");
}

TEST(UnicodeText, CountsPadsAndPrintsAnyBytes) {
  EXPECT_EQ(code_points("e\xCC\x81\xF0\x9F\xA5\x81"), 3u);
  EXPECT_EQ(code_points("a\xE9z\xF0\x9F"), 5u);
  EXPECT_EQ(pad_right("é", 3), "é  ");
  EXPECT_EQ(pad_right("long", 3), "long");
  EXPECT_EQ(printable("caf\xE9.wav \xF0\x9F é\n\x1F "), "caf\\xE9.wav \\xF0\\x9F é\\x0A\\x1F ");
}

}  // namespace
}  // namespace verdel::internal
