#include "support/machine.hpp"

#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

namespace verdel::internal {
namespace {

std::uint64_t read_physical_memory() {
  const long page_size = sysconf(_SC_PAGESIZE);
  const long pages = sysconf(_SC_PHYS_PAGES);
  if (page_size <= 0 || pages <= 0) return C14_DEFAULT_MEMORY;
  return static_cast<std::uint64_t>(page_size) * static_cast<std::uint64_t>(pages);
}

std::string system_temporary_folder() {
  for (const char* variable : {"TMPDIR", "TEMP", "TMP"}) {
    const char* folder = std::getenv(variable);
    if (folder != nullptr && *folder != '\0') return folder;
  }
  return "/tmp";
}

std::uint64_t free_space(const std::string& folder) {
  struct statvfs statistics {};
  if (statvfs(folder.c_str(), &statistics) != 0) return 0;
  return static_cast<std::uint64_t>(statistics.f_bavail) *
         static_cast<std::uint64_t>(statistics.f_frsize);
}

std::size_t read_processors() {
  const unsigned count = std::thread::hardware_concurrency();
  return count == 0 ? 1 : count;
}

}  // namespace

Machine system_machine(const std::string& temporary_folder) {
  const auto folder = [temporary_folder] {
    return temporary_folder.empty() ? system_temporary_folder() : temporary_folder;
  };
  return {.physical_memory = read_physical_memory,
          .temporary_space = [folder] { return free_space(folder()); },
          .processors = read_processors,
          .temporary_folder = folder};
}

}  // namespace verdel::internal
