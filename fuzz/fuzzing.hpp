#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "support/errors.hpp"

/// What the fuzz targets share. A target takes bytes that may be anything, hands them to the engine
/// and ends the process where a property does not hold, with or without NDEBUG.
namespace verdel::internal::fuzzing {

inline void require(bool holds, const std::string& property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property.c_str());
  std::abort();
}

inline std::string text_of(const std::uint8_t* data, std::size_t size) {
  return size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
}

/// The words between separators.
inline std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> words(1);
  for (const char c : text) {
    if (c == separator) {
      words.emplace_back();
    } else {
      words.back() += c;
    }
  }
  return words;
}

/// What an action returns, or nothing if it fails in one of the ways that input may draw. Anything
/// else that it throws ends the process.
template <class Action>
auto attempt(Action action, std::string* message = nullptr) -> std::optional<decltype(action())> {
  const auto keep = [&](const char* text) {
    require(*text != '\0', "a failure says what is wrong");
    if (message != nullptr) *message = text;
  };
  try {
    return action();
  } catch (const ValueError& failure) {
    keep(failure.what());
  } catch (const RuntimeError& failure) {
    keep(failure.what());
  } catch (const OSError& failure) {
    keep(failure.what());
  }
  return std::nullopt;
}

}  // namespace verdel::internal::fuzzing
