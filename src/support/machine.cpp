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

std::string read_temporary_folder() {
  for (const char* variable : {"TMPDIR", "TEMP", "TMP"}) {
    const char* folder = std::getenv(variable);
    if (folder != nullptr && *folder != '\0') return folder;
  }
  return "/tmp";
}

std::uint64_t read_temporary_space() {
  struct statvfs statistics {};
  if (statvfs(read_temporary_folder().c_str(), &statistics) != 0) return 0;
  return static_cast<std::uint64_t>(statistics.f_bavail) *
         static_cast<std::uint64_t>(statistics.f_frsize);
}

std::size_t read_processors() {
  const unsigned count = std::thread::hardware_concurrency();
  return count == 0 ? 1 : count;
}

}  // namespace

Machine system_machine() {
  return {.physical_memory = read_physical_memory,
          .temporary_space = read_temporary_space,
          .processors = read_processors,
          .temporary_folder = read_temporary_folder};
}

}  // namespace verdel::internal
