#include "delivery/unfinished_file.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <random>
#include <set>
#include <string_view>
#include <system_error>

#include "inputs/folder.hpp"
#include "inputs/path_text.hpp"
#include "support/descriptor.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

// The name of an unfinished file: this, some random letters, and that.
constexpr std::string_view kPrefix = ".verdel-", kSuffix = ".part";
constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyz0123456789";
constexpr std::size_t kRandomLetters = 8;

std::string folder_of(const std::string& path) {
  const std::string folder = dirname(path);
  return folder.empty() ? "." : folder;
}

// What a link leads to in the end, so that the link stays when its file is replaced; a path where
// none stands, or where it leads nowhere, as it is.
std::string behind_links(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::is_symlink(path, error)) return path;
  const auto file = std::filesystem::canonical(path, error);
  return error ? path : file.string();
}

std::string unfinished_name() {
  std::random_device random;
  std::uniform_int_distribution<std::size_t> letter(0, kLetters.size() - 1);
  std::string name(kPrefix);
  for (std::size_t i = 0; i < kRandomLetters; ++i) name += kLetters[letter(random)];
  return name.append(kSuffix);
}

bool is_unfinished_name(std::string_view name) {
  return name.size() == kPrefix.size() + kRandomLetters + kSuffix.size() &&
         name.starts_with(kPrefix) && name.ends_with(kSuffix) &&
         name.substr(kPrefix.size(), kRandomLetters).find_first_not_of(kLetters) == name.npos;
}

// Whether the path still leads to the open file, and that is a regular one.
bool is_named(int descriptor, const std::string& path) {
  struct stat opened {
  }, named{};
  return fstat(descriptor, &opened) == 0 && lstat(path.c_str(), &named) == 0 &&
         S_ISREG(named.st_mode) && opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

// Locks a new file; false if a sweep was quicker. On a file system without locks there is none,
// and no sweep either.
bool lock_new_file(int descriptor, const std::string& path) {
  if (flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return false;
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

void sweep(const std::string& path) {
  // Open for writing, because some network file systems lock nothing else.
  const Descriptor file(open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) return;
  // Once it is locked nobody writes it, but its writer may just have given it its final name.
  if (flock(file.get(), LOCK_EX | LOCK_NB) == 0 && is_named(file.get(), path)) {
    unlink(path.c_str());
  }
}

void sweep_folder(const std::string& folder) try {
  for (const std::string& name : list_folder(folder)) {
    if (is_unfinished_name(name)) sweep(join(folder, name));
  }
} catch (const OSError&) {
  // A folder that can be written to but not listed keeps its leftovers.
}

// Makes a new name last; where folders cannot be synced, the file is complete all the same.
void sync_folder(const std::string& path) {
  const Descriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder) fsync(folder.get());
}

}  // namespace

UnfinishedFile::UnfinishedFile(const std::string& target)
    : target_(target), file_behind_(behind_links(target)), file_([this] { return create(); }) {}

std::string UnfinishedFile::create() {
  constexpr int kMostClashes = 100;
  for (int attempt = 0;; ++attempt) {
    std::string path = join(folder_of(file_behind_), unfinished_name());
    opened_ = Descriptor(open(path.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0666));
    if (opened_ && lock_new_file(opened_.get(), path)) return path;
    const int error = opened_ ? EEXIST : errno;
    if (error != EEXIST || attempt == kMostClashes) refuse(error);
  }
}

void UnfinishedFile::take_target_name() {
  // Renames only what the disk holds: otherwise a crash could leave the name on an empty file.
  while (fsync(opened_.get()) != 0) {
    if (errno == EINVAL || errno == ENOTSUP) break;  // a file system that cannot say
    if (errno != EINTR) refuse(errno);
  }
  // Some network file systems report a full disk no earlier than on closing. The descriptor itself
  // keeps the lock until the name is taken.
  const int copy = fcntl(opened_.get(), F_DUPFD_CLOEXEC, 0);
  if (copy >= 0 && close(copy) != 0 && errno != EINTR) refuse(errno);
  file_.hand_over([this] {
    if (std::rename(file_.path().c_str(), file_behind_.c_str()) != 0) refuse(errno);
  });
  sync_folder(folder_of(file_behind_));
}

void UnfinishedFile::refuse(int error) const {
  throw OSError("cannot write " + quoted_path(target_), error);
}

void sweep_unfinished_files(const std::string& folder, const std::vector<std::string>& targets) {
  std::set<std::string> folders = {folder};
  for (const std::string& target : targets) {
    const std::string file = behind_links(target);
    if (file != target) folders.insert(folder_of(file));
  }
  for (const std::string& place : folders) sweep_folder(place);
}

}  // namespace verdel::internal
