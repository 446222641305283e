#include <gtest/gtest.h>

#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

using Text = std::string;

Text real(const Text& text) {
  const auto value = parse_float64(text);
  return value ? shortest_float64(*value) : "none";
}

Text whole(const Text& text) {
  const auto value = parse_whole(text);
  return value ? std::to_string(*value) : "none";
}

template <std::string function(std::string_view)>
Text of(const Text& text) {
  return function(text);
}

Text figures(const Text& text) {
  const double value = *parse_float64(text);
  return general(value) + " " + one_decimal(value) + " " + signed_one_decimal(value);
}

Text measures(const Text& text) {
  return counted(code_points(text), "letter") + (is_valid_utf8(text) ? "" : " of no text");
}

Text padded(const Text& text) {
  return pad_right(text, 5);
}

// What texts become; all that have one result stand together, and "=" is the text itself.
const struct {
  Text (*function)(const Text&);
  Text result;
  std::vector<Text> texts;
} kCases[] = {
    {real, "=", {"-0.0", "0.0", "0.1", "0.0001", "1000000000000000.0", "1e+16", "5e-324"}},
    {real, "12.0", {"12", "12.", ".12e2", "\t12\v", " +1.2E1\n"}},
    {real, "inf", {"inf", "InFiNiTy", "1e400"}},
    {real, "-inf", {"-inf", "-1e400"}},
    {real, "nan", {"nan", "-NaN", "+nan "}},
    {real,
     "none",
     {"", " ", "-", "+-5", ".", "e5", "5e", "5e+", "0x10", "in", "1,5", "1_0", "12a", "1 2", "- 5",
      "nan(1)", "infin", "١"}},
    {whole, "9223372036854775807", {"9223372036854775807", "9223372036854775808"}},
    {whole, "-9223372036854775808", {" -09223372036854775808 ", "-9223372036854775809"}},
    {whole, "none", {"", "-", "1.0", "1e3", "0x1", "1_0", "--1", "1 0", "inf"}},
    {figures, "-13.1667 -13.2 -13.2", {"-13.16666666"}},
    {figures, "nan nan +nan", {"nan"}},
    {padded, "é    ", {"é", "é "}},
    {measures, "0 letters", {""}},
    {measures, "1 letter", {"\xF0\x9F\xA5\x81", "é"}},
    {measures, "5 letters of no text", {"a\xE9z\xF0\x9F", "\xF4\x90\x80\x80\x80"}},
    // A cut sequence, an overlong slash and a lone tail; and half a surrogate pair.
    {measures, "3 letters of no text", {"\xF0\x9F\xA5", "\xC0\xAFz", "ab\x80", "\xED\xA0\x80"}},
    {of<nfc>, "\xC3\xA9 \xC3\x85", {"e\xCC\x81 A\xCC\x8A", "\xC3\xA9 \xE2\x84\xAB"}},
    {of<lower>, "σοφος οδος i\xCC\x87i", {"ΣΟΦΟΣ ΟΔΟΣ İI"}},
    {of<printable>, "=", {"", "~é\xC2\xA0", "\u2027\u202F\u2065\u206A", "\u200D\uFFFD\U0001F941"}},
    {of<printable>, "\\x1F\\x7F\\xC2\\x80\\xC2\\x9F\\xE9", {"\x1F\x7F\xC2\x80\xC2\x9F\xE9"}},
    {of<printable>, "\\xE2\\x80\\xA8\\xE2\\x80\\xAE\\xE2\\x81\\xA6", {"\u2028\u202E\u2066"}},
    {of<printable>, "\\xE2\\x81\\xA9", {"\u2069"}},
    {of<printable_lines>, "a\\x0D\n\nb\\x85", {"a\r\n\nb\x85"}},
    {of<spelt_out>, "Cafe[U+0301]\\x0A", {"Cafe\xCC\x81\n"}},
};

TEST(Text, IsReadAndWrittenExactly) {
  for (const auto& [function, result, texts] : kCases) {
    for (const Text& text : texts) EXPECT_EQ(function(text), result == "=" ? text : result);
  }
}

}  // namespace
}  // namespace verdel::internal
