#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

/// Text as UTF-8. Names of files arrive as bytes that may be anything: only nfc, lower and
/// spelt_out want valid UTF-8.
namespace verdel::internal {

bool is_valid_utf8(std::string_view text);

/// Unicode Normalization Form C.
std::string nfc(std::string_view text);

/// The full default lower-case mapping of no particular language: a capital sigma at the end of a
/// word becomes a final sigma, and a letter may become several.
std::string lower(std::string_view text);

/// Number of code points; a byte that belongs to none counts as one.
std::size_t code_points(std::string_view text);

/// What stands in for a character: its bytes and its code point, or bytes that are no UTF-8 and
/// U+FFFD.
using EscapeCharacter = std::function<std::string(std::string_view bytes, char32_t code)>;

/// The text with everything escaped that would not leave the line as it is in which it stands: what
/// is not UTF-8, control characters (ASCII's, DEL, U+0080 to U+009F), which end lines and command
/// terminals, the separators U+2028 and U+2029, and the embeddings, overrides and isolates of
/// bidirectional text (U+202A to U+202E, U+2066 to U+2069), which show what follows in another
/// order. Joiners and other characters without width stay: languages and emoji need them, and they
/// change nothing beside themselves.
std::string escape_disturbing(std::string_view text, const EscapeCharacter& escape);

/// The text such that any name can stand in a line of its own: what disturbs a line as bytes, \xNN.
/// What this returns is left as it is by a second time.
std::string printable(std::string_view text);

/// The same for a message of several lines, which keeps its line breaks; so a name in it wants
/// printable() before it goes in.
std::string printable_lines(std::string_view text);

/// A path as messages show it, whatever its bytes: “a.wav”.
std::string quoted_path(std::string_view path);

/// The text with its characters beyond ASCII as code points, Caf[U+00E9], to tell apart names that
/// look the same.
std::string spelt_out(std::string_view text);

/// The text with blanks behind it up to `width` code points; a longer text is not cut.
std::string pad_right(std::string_view text, std::size_t width);

}  // namespace verdel::internal
