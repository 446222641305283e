#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace verdel::internal::testing {

inline std::string bytes_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

/// Everything under a folder, by its path from there: what a file holds, or "no file".
inline std::map<std::string, std::string> contents_of(const std::string& folder) {
  std::map<std::string, std::string> contents;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    contents[entry.path().lexically_relative(folder).string()] =
        entry.is_regular_file() ? bytes_of(entry.path().string()) : "no file";
  }
  return contents;
}

inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

/// The lines of a file of cases, which has some.
inline std::vector<std::string> cases_of(const std::string& path) {
  auto cases = lines_of(bytes_of(path));
  if (cases.empty()) throw std::runtime_error("no cases in " + path);
  return cases;
}

/// The parts of a text between separators, one more than there are of these.
inline std::vector<std::string> parts_of(const std::string& text, char separator) {
  std::vector<std::string> parts(1);
  for (const char c : text) c == separator ? parts.emplace_back() : parts.back() += c;
  return parts;
}

/// The message of the failure of a kind that an action ends in; nothing where it ends well.
template <class Failure>
std::string failure_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "";
}

}  // namespace verdel::internal::testing
