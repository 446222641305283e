#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "fuzz/fuzzing.hpp"
#include "inputs/path_text.hpp"
#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal::fuzzing {
namespace {

void require_sound_numbers(const std::string& text) {
  const auto real = parse_float64(text);
  const auto whole = parse_whole(text);
  if (real) {
    const auto again = parse_float64(shortest_float64(*real));
    require(again && (std::isnan(*real) ? std::isnan(*again)
                                        : std::bit_cast<std::uint64_t>(*again) ==
                                              std::bit_cast<std::uint64_t>(*real)),
            "the shortest text reads as the same number");
  }
  if (!whole) return;
  require(real.has_value(), "a whole number is a number");
  using Limits = std::numeric_limits<std::int64_t>;
  const bool is_clamped = *whole == Limits::min() || *whole == Limits::max();
  require(is_clamped || static_cast<double>(*whole) == *real, "both readings agree");
  require(parse_whole(std::to_string(*whole)) == whole, "digits read as the same number");
}

// Whether there is something in the text that printable() is to escape.
bool disturbs_a_line(const std::string& text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = [&](std::size_t k) {
      return i + k < text.size() ? static_cast<unsigned char>(text[i + k]) : 0u;
    };
    if (byte(0) < 0x20 || byte(0) == 0x7F) return true;
    if (byte(0) == 0xC2 && byte(1) < 0xA0) return true;
    if (byte(0) == 0xE2 && byte(1) == 0x80 && byte(2) >= 0xA8 && byte(2) <= 0xAE) return true;
    if (byte(0) == 0xE2 && byte(1) == 0x81 && byte(2) >= 0xA6 && byte(2) <= 0xA9) return true;
  }
  return false;
}

void require_sound_unicode(const std::string& text) {
  const std::string shown = printable(text);
  require(is_valid_utf8(shown) && printable(shown) == shown, "any text can be printed");
  require((shown == text) == (is_valid_utf8(text) && !disturbs_a_line(text)),
          "plain text stays as it is");
  require(std::ranges::count(printable_lines(text), '\n') == std::ranges::count(text, '\n'),
          "lines stay lines");
  require(code_points(pad_right(text, 40)) >= 40 && pad_right(text, 0) == text, "padding pads");
  if (!is_valid_utf8(text)) return;
  const std::string normal = nfc(text);
  require(is_valid_utf8(normal) && nfc(normal) == normal, "a normal form is its own");
  require(is_valid_utf8(lower(text)), "lower case is text");
}

void require_sound_paths(const std::string& text) {
  const std::string whole = absolute(text), name = basename(text);
  require(whole.starts_with('/') && absolute(whole) == whole, "an absolute path is its own");
  require(whole == "/" || !whole.ends_with('/'), "no slash at the end");
  require((whole + "/").find("/../") == std::string::npos, "nothing leads upwards");
  require(name.find('/') == std::string::npos && text.ends_with(name), "a name is the end");
  const auto [stem, extension] = split_extension(name);
  require(stem + extension == name, "stem and extension are the name");
  require(!has_audio_extension(extension) || ends_like_audio(name), "an extension is an ending");
  require(absolute(join(dirname(text), name)) == whole || name == "..",
          "folder and name lead back");
  require(absolute(join("/a/b", relative(text, "/a/b"))) == whole, "a path stays what it is");
}

}  // namespace
}  // namespace verdel::internal::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace verdel::internal::fuzzing;
  const std::string text = text_of(data, size);
  require_sound_numbers(text);
  require_sound_unicode(text);
  require_sound_paths(text);
  return 0;
}
