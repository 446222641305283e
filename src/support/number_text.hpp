#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// Numbers to and from text, the same in every locale.
namespace verdel::internal {

/// A decimal number (digits, point, exponent), nan, inf or infinity in any case, with an optional
/// sign and surrounding white space; too large is infinite, too small is 0. Nothing if the text is
/// anything else (hexadecimal, digit separators, a rest behind the number).
std::optional<double> parse_float64(std::string_view text);

/// Decimal digits with an optional sign and surrounding white space; what 64 bits do not hold
/// becomes the nearest value that they do. Nothing if the text is anything else.
std::optional<std::int64_t> parse_whole(std::string_view text);

/// The shortest text that parse_float64 reads as the same value: 12.0, 0.1, 1e-05, 1e+16, inf, nan.
/// A whole value below 1e16 keeps ".0", so that the text shows what it is.
std::string shortest_float64(double value);

/// Up to six significant digits without trailing zeros: 30, 0.5, 1e+06.
std::string general(double value);

/// One digit behind the point.
std::string one_decimal(double value);

/// One digit behind the point and always a sign in front; a value that is not a number is "+nan",
/// whatever sign bit the processor gave it.
std::string signed_one_decimal(double value);

/// A number of things: "1 frame", "0 frames", "2 frames".
template <std::integral Count>
std::string counted(Count count, std::string_view thing) {
  return std::to_string(count).append(" ").append(thing).append(count == 1 ? "" : "s");
}

}  // namespace verdel::internal
