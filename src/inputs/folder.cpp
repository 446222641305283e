#include "inputs/folder.hpp"

#include <filesystem>
#include <system_error>

#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {

bool is_folder(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_directory(path, error);
}

std::vector<std::string> list_folder(const std::string& folder) {
  std::error_code error;
  std::vector<std::string> names;
  std::filesystem::directory_iterator entry(folder, error);
  while (!error && entry != std::filesystem::directory_iterator()) {
    names.push_back(entry->path().filename().string());
    entry.increment(error);
  }
  if (error) throw OSError("cannot list the folder " + quoted_path(folder), error.value());
  return names;
}

}  // namespace verdel::internal
