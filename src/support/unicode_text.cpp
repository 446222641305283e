#include "support/unicode_text.hpp"

#include <fmt/format.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/stringpiece.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <cstdint>
#include <limits>

#include "support/errors.hpp"

namespace verdel::internal {
namespace {

constexpr UChar32 kNoCodePoint = U_SENTINEL;  // below every code point

// Calls piece(bytes, code) for each code point, and with kNoCodePoint for each run of bytes that
// cannot begin or continue one.
template <class Function>
void for_each_code_point(std::string_view text, Function piece) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto length = static_cast<std::ptrdiff_t>(text.size());
  for (std::ptrdiff_t i = 0; i < length;) {
    const std::ptrdiff_t first = i;
    UChar32 code = 0;
    U8_NEXT(bytes, i, length, code);
    piece(text.substr(static_cast<std::size_t>(first), static_cast<std::size_t>(i - first)), code);
  }
}

bool is_between(UChar32 code, UChar32 first, UChar32 last) {
  return first <= code && code <= last;
}

// What is no code point, the control characters, the separators of lines and paragraphs, and what
// turns the direction of the text behind it.
bool disturbs_a_line(UChar32 code) {
  return code < ' ' || is_between(code, 0x7F, 0x9F) || is_between(code, 0x2028, 0x202E) ||
         is_between(code, 0x2066, 0x2069);
}

icu::UnicodeString to_utf16(std::string_view text) {
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
    throw ValueError("a text of more than 2 GiB is no name");
  }
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

std::string to_utf8(const icu::UnicodeString& text) {
  std::string result;
  return text.toUTF8String(result);
}

}  // namespace

bool is_valid_utf8(std::string_view text) {
  bool all_valid = true;
  for_each_code_point(
      text, [&](std::string_view, UChar32 code) { all_valid = all_valid && code != kNoCodePoint; });
  return all_valid;
}

std::string nfc(std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* normalizer = icu::Normalizer2::getNFCInstance(status);
  icu::UnicodeString normalized;
  if (U_SUCCESS(status)) normalized = normalizer->normalize(to_utf16(text), status);
  if (U_FAILURE(status)) {
    throw RuntimeError(
        fmt::format("cannot normalise {}: {}", quoted_path(text), u_errorName(status)));
  }
  return to_utf8(normalized);
}

std::string lower(std::string_view text) {
  return to_utf8(to_utf16(text).toLower(icu::Locale::getRoot()));
}

std::size_t code_points(std::string_view text) {
  std::size_t count = 0;
  for_each_code_point(text, [&](std::string_view bytes, UChar32 code) {
    count += code == kNoCodePoint ? bytes.size() : 1;
  });
  return count;
}

std::string escape_disturbing(std::string_view text, const EscapeCharacter& escape) {
  constexpr char32_t kReplacement = 0xFFFD;
  std::string result;
  result.reserve(text.size());
  for_each_code_point(text, [&](std::string_view bytes, UChar32 code) {
    if (!disturbs_a_line(code)) {
      result += bytes;
    } else {
      result += escape(bytes, code == kNoCodePoint ? kReplacement : static_cast<char32_t>(code));
    }
  });
  return result;
}

std::string printable(std::string_view text) {
  return escape_disturbing(text, [](std::string_view bytes, char32_t) {
    std::string hex;
    for (const char byte : bytes) {
      hex += fmt::format("\\x{:02X}", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    }
    return hex;
  });
}

std::string printable_lines(std::string_view text) {
  std::string result;
  for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
    result += printable(text.substr(0, end)) + "\n";
    text.remove_prefix(end + 1);
  }
  return result + printable(text);
}

std::string spelt_out(std::string_view text) {
  constexpr UChar32 kLastOfAscii = 0x7F;
  std::string result;
  for_each_code_point(text, [&](std::string_view bytes, UChar32 code) {
    result += code <= kLastOfAscii ? printable(bytes)
                                   : fmt::format("[U+{:04X}]", static_cast<unsigned>(code));
  });
  return result;
}

std::string quoted_path(std::string_view path) {
  return "“" + printable(path) + "”";
}

std::string pad_right(std::string_view text, std::size_t width) {
  std::string result(text);
  const std::size_t count = code_points(text);
  if (count < width) result.append(width - count, ' ');
  return result;
}

}  // namespace verdel::internal
