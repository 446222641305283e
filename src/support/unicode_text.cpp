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

// Calls piece(bytes, valid) for each code point, and for each run of bytes that cannot begin or
// continue one.
template <class Function>
void for_each_code_point(std::string_view text, Function piece) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto length = static_cast<std::ptrdiff_t>(text.size());
  for (std::ptrdiff_t i = 0; i < length;) {
    const std::ptrdiff_t first = i;
    UChar32 code = 0;
    U8_NEXT(bytes, i, length, code);
    piece(text.substr(static_cast<std::size_t>(first), static_cast<std::size_t>(i - first)),
          code >= 0);
  }
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
  for_each_code_point(text, [&](std::string_view, bool valid) { all_valid = all_valid && valid; });
  return all_valid;
}

std::string nfc(std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* normalizer = icu::Normalizer2::getNFCInstance(status);
  icu::UnicodeString normalized;
  if (U_SUCCESS(status)) normalized = normalizer->normalize(to_utf16(text), status);
  if (U_FAILURE(status)) {
    throw RuntimeError(fmt::format("cannot normalise “{}”: {}", text, u_errorName(status)));
  }
  return to_utf8(normalized);
}

std::string lower(std::string_view text) {
  return to_utf8(to_utf16(text).toLower(icu::Locale::getRoot()));
}

std::size_t code_points(std::string_view text) {
  std::size_t count = 0;
  for_each_code_point(
      text, [&](std::string_view bytes, bool valid) { count += valid ? 1 : bytes.size(); });
  return count;
}

std::string printable(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for_each_code_point(text, [&](std::string_view bytes, bool valid) {
    const bool is_control = static_cast<unsigned char>(bytes.front()) < ' ';
    if (valid && !is_control) {
      result += bytes;
      return;
    }
    for (const char byte : bytes) {
      result += fmt::format("\\x{:02X}", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    }
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
