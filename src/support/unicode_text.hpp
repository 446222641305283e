#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Text as UTF-8. Names of files arrive as bytes that may be anything; everything but
/// is_valid_utf8, code_points, printable and pad_right wants valid UTF-8.
namespace verdel::internal {

bool is_valid_utf8(std::string_view text);

/// Unicode Normalization Form C.
std::string nfc(std::string_view text);

/// The full default lower-case mapping of no particular language: a capital sigma at the end of a
/// word becomes a final sigma, and a letter may become several.
std::string lower(std::string_view text);

/// Number of code points; a byte that belongs to none counts as one.
std::size_t code_points(std::string_view text);

/// The text with every byte that is not UTF-8, and every line break and other control character of
/// ASCII below the blank, as \xNN, so that any name can stand in a line of its own.
std::string printable(std::string_view text);

/// A path as messages show it, whatever its bytes: “a.wav”.
std::string quoted_path(std::string_view path);

/// The text with blanks behind it up to `width` code points; a longer text is not cut.
std::string pad_right(std::string_view text, std::size_t width);

}  // namespace verdel::internal
