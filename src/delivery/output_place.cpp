#include "delivery/output_place.hpp"

#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "delivery/unfinished_file.hpp"
#include "support/errors.hpp"
#include "support/temporary.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDangling =
    "a link stands there that leads nowhere; remove it, or make what it leads to";

[[noreturn]] void refuse_folder(const std::string& folder, int error) {
  throw OSError("cannot make the output folder " + quoted_path(folder), error);
}

/// The folder, or the nearest one above that is there.
std::string nearest_folder(const std::string& folder) {
  fs::path place = folder;
  struct stat status {};
  while (stat(place.c_str(), &status) != 0) {
    const int error = errno;
    if (fs::is_symlink(place)) {
      throw OSError("cannot make the output folder " + quoted_path(folder) + ": " + kDangling);
    }
    if (error != ENOENT) refuse_folder(folder, error);
    place = place.has_parent_path() ? place.parent_path() : ".";
  }
  if (!S_ISDIR(status.st_mode)) refuse_folder(folder, ENOTDIR);
  return place.string();
}

void require_makeable(const std::string& folder) {
  const std::string nearest = nearest_folder(folder);
  if (nearest == folder) return;
  const Temporary trial([&] {
    std::string path = nearest + "/.verdel-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) refuse_folder(folder, errno);
    return path;
  });
}

void require_replaceable(const std::string& file) {
  const std::string what = "cannot write " + quoted_path(file);
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) {
    std::error_code unknown;
    if (fs::is_symlink(file, unknown)) throw OSError(what + ": " + kDangling);
    return;
  }
  if (S_ISDIR(status.st_mode)) throw OSError(what, EISDIR);
  if (!S_ISREG(status.st_mode)) throw OSError(what + ": what stands there is not a regular file");
}

}  // namespace

void require_usable_place(const std::string& folder, const std::vector<std::string>& files) {
  require_makeable(folder);
  for (const std::string& file : files) require_replaceable(file);
  if (!fs::is_directory(folder)) return;
  for (const std::string& file : files) const UnfinishedFile trial(file);
}

void make_folder(const std::string& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (!error && !fs::is_directory(folder, error) && !error) {
    error = std::make_error_code(std::errc::not_a_directory);
  }
  if (error) refuse_folder(folder, error.value());
}

}  // namespace verdel::internal
