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

void require_sound_unicode(const std::string& text) {
  const std::string shown = printable(text);
  require(is_valid_utf8(shown) && printable(shown) == shown, "any text can be printed");
  const bool has_controls =
      std::any_of(text.begin(), text.end(), [](char c) { return c >= '\0' && c < ' '; });
  require((shown == text) == (is_valid_utf8(text) && !has_controls), "plain text stays as it is");
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
