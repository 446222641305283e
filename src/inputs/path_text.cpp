#include "inputs/path_text.hpp"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

#include "support/errors.hpp"

namespace verdel::internal {
namespace {

// Enough for endings: no character outside ASCII has one of their letters as its lower case.
std::string ascii_lower(std::string_view text) {
  std::string result(text);
  for (char& letter : result) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return result;
}

std::string current_folder() {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::current_path(error);
  if (error) {
    throw OSError(
        "cannot find the current folder (" + error.message() +
        "). It may have been deleted or moved: change to a folder that is there and start "
        "again.");
  }
  return path.string();
}

// The names that lead from the root to the path.
std::vector<std::string> segments(std::string_view path) {
  const std::string whole =
      path.starts_with('/') ? std::string(path) : join(current_folder(), path);
  std::vector<std::string> result;
  for (std::size_t first = 0; first < whole.size();) {
    const std::size_t end = std::min(whole.find('/', first), whole.size());
    const std::string segment = whole.substr(first, end - first);
    if (segment == "..") {
      if (!result.empty()) result.pop_back();
    } else if (!segment.empty() && segment != ".") {
      result.push_back(segment);
    }
    first = end + 1;
  }
  return result;
}

}  // namespace

std::string basename(std::string_view path) {
  return std::string(path.substr(path.rfind('/') + 1));
}

std::string dirname(std::string_view path) {
  const std::string_view head = path.substr(0, path.rfind('/') + 1);
  const std::size_t last = head.find_last_not_of('/');
  return std::string(last == std::string_view::npos ? head : head.substr(0, last + 1));
}

StemAndExtension split_extension(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  const std::size_t first_letter = name.find_first_not_of('.');
  if (dot == std::string_view::npos || first_letter > dot) return {std::string(name), ""};
  return {std::string(name.substr(0, dot)), std::string(name.substr(dot))};
}

std::string join(std::string_view first, std::string_view second) {
  if (second.starts_with('/')) return std::string(second);
  std::string result(first);
  if (!result.empty() && !result.ends_with('/')) result += '/';
  return result.append(second);
}

std::string absolute(std::string_view path) {
  std::string result;
  for (const std::string& segment : segments(path)) result.append("/").append(segment);
  return result.empty() ? "/" : result;
}

std::string relative(std::string_view path, std::string_view start) {
  const std::vector<std::string> to = segments(path), from = segments(start);
  const auto [to_rest, from_rest] = std::mismatch(to.begin(), to.end(), from.begin(), from.end());
  std::string result;
  for (auto up = from_rest; up != from.end(); ++up) result = join(result, "..");
  for (auto down = to_rest; down != to.end(); ++down) result = join(result, *down);
  return result.empty() ? "." : result;
}

bool has_audio_extension(std::string_view extension) {
  return std::find(AUDIO.begin(), AUDIO.end(), ascii_lower(extension)) != AUDIO.end();
}

bool ends_like_audio(std::string_view name) {
  const std::string folded = ascii_lower(name);
  return std::any_of(AUDIO.begin(), AUDIO.end(),
                     [&](std::string_view ending) { return folded.ends_with(ending); });
}

}  // namespace verdel::internal
