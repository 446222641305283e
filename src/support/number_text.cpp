#include "support/number_text.hpp"

#include <fmt/format.h>
#include <locale.h>
#include <stdlib.h>
#if defined(__APPLE__)
#include <xlocale.h>
#endif

#include <cmath>
#include <limits>

namespace verdel::internal {
namespace {

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

std::string_view without_surrounding_space(std::string_view text) {
  constexpr std::string_view kSpace = " \t\n\v\f\r";
  const auto first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

/// Takes a sign off the front; true if it was a minus.
bool take_sign(std::string_view& text) {
  if (text.empty() || (text.front() != '-' && text.front() != '+')) return false;
  const bool negative = text.front() == '-';
  text.remove_prefix(1);
  return negative;
}

std::size_t take_digits(std::string_view& text) {
  std::size_t count = 0;
  while (count < text.size() && is_digit(text[count])) ++count;
  text.remove_prefix(count);
  return count;
}

bool equals_ignoring_case(std::string_view text, std::string_view lower) {
  if (text.size() != lower.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) != lower[i]) return false;
  }
  return true;
}

/// Whether unsigned text has the form digits [. digits] [e [sign] digits], a digit on at least one
/// side of the point.
bool is_decimal_form(std::string_view text) {
  std::size_t digits = take_digits(text);
  if (!text.empty() && text.front() == '.') {
    text.remove_prefix(1);
    digits += take_digits(text);
  }
  if (digits == 0) return false;
  if (text.empty()) return true;
  if (text.front() != 'e' && text.front() != 'E') return false;
  text.remove_prefix(1);
  take_sign(text);
  return take_digits(text) > 0 && text.empty();
}

locale_t plain_locale() {
  static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
  return locale;
}

}  // namespace

std::optional<double> parse_float64(std::string_view text) {
  text = without_surrounding_space(text);
  const std::string whole(text);
  const bool negative = take_sign(text);
  if (equals_ignoring_case(text, "inf") || equals_ignoring_case(text, "infinity")) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    return negative ? -kInfinity : kInfinity;
  }
  if (equals_ignoring_case(text, "nan")) return std::numeric_limits<double>::quiet_NaN();
  if (!is_decimal_form(text)) return std::nullopt;
  return strtod_l(whole.c_str(), nullptr, plain_locale());
}

std::optional<std::int64_t> parse_whole(std::string_view text) {
  text = without_surrounding_space(text);
  const bool negative = take_sign(text);
  std::string_view rest = text;
  if (take_digits(rest) == 0 || !rest.empty()) return std::nullopt;
  using Limits = std::numeric_limits<std::int64_t>;
  std::int64_t value = 0;  // kept negative, where 64 bits reach one further
  for (const char c : text) {
    const std::int64_t digit = c - '0';
    if (value < (Limits::min() + digit) / 10) {
      return negative ? Limits::min() : Limits::max();
    }
    value = value * 10 - digit;
  }
  if (negative) return value;
  return value == Limits::min() ? Limits::max() : -value;
}

std::string shortest_float64(double value) {
  if (std::isnan(value)) return "nan";
  std::string text = fmt::format("{}", value);
  if (text.find_first_of(".einf") == std::string::npos) text += ".0";
  return text;
}

std::string general(double value) {
  return fmt::format("{:g}", value);
}

std::string one_decimal(double value) {
  return fmt::format("{:.1f}", value);
}

std::string signed_one_decimal(double value) {
  return std::isnan(value) ? "+nan" : fmt::format("{:+.1f}", value);
}

}  // namespace verdel::internal
