#include "signal/song_storage.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <utility>

#include "support/descriptor.hpp"
#include "support/errors.hpp"
#include "support/temporary_directory.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {

struct SongStorage::Budget {
  Budget(std::uint64_t bytes, std::string directory) : left(bytes), folder(std::move(directory)) {}

  bool take(std::size_t bytes) {
    std::uint64_t before = left;
    do {
      if (bytes > before) return false;
    } while (!left.compare_exchange_weak(before, before - bytes));
    return true;
  }
  void give_back(std::size_t bytes) { left += bytes; }

  std::atomic<std::uint64_t> left;
  const std::string folder;
};

namespace {

// Gives the file its size and its blocks; returns 0 or an error number.
int reserve_space(int descriptor, std::size_t bytes) {
  const auto length = static_cast<off_t>(bytes);
#if defined(__APPLE__)
  fstore_t request{F_ALLOCATEALL, F_PEOFPOSMODE, 0, length, 0};
  if (fcntl(descriptor, F_PREALLOCATE, &request) == -1) return errno;
  return ftruncate(descriptor, length) == 0 ? 0 : errno;
#else
  int error = EINTR;
  while (error == EINTR) error = posix_fallocate(descriptor, 0, length);
  return error;
#endif
}

// The file loses its name with its directory, at the end of this function.
std::shared_ptr<void> map_nameless_file(const std::string& folder, std::size_t bytes) {
  const TemporaryDirectory directory(folder, "verdel-c14-");
  const std::string path = directory.path() + "/song";
  const Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file) throw OSError("cannot create the temporary file " + printable(path), errno);
  if (const int error = reserve_space(file.get(), bytes); error != 0) {
    throw OSError("cannot reserve " + std::to_string(bytes >> 20) +
                      " MiB for a song that does not fit into memory in " + quoted_path(folder) +
                      " (TMPDIR names a folder with more room)",
                  error);
  }
  void* const data = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (data == MAP_FAILED) throw OSError("cannot map the temporary file " + printable(path), errno);
  return {data, [bytes](void* mapped) { munmap(mapped, bytes); }};
}

}  // namespace

SongStorage::SongStorage(std::uint64_t memory, const std::string& folder)
    : budget_(std::make_shared<Budget>(memory, folder)) {}

std::shared_ptr<void> SongStorage::take(std::size_t bytes) const {
  if (!budget_->take(bytes)) return map_nameless_file(budget_->folder, bytes);
  const auto release = [budget = budget_, bytes](void* data) {
    ::operator delete (data, std::align_val_t{kArrayAlignment});
    budget->give_back(bytes);
  };
  void* data = nullptr;
  try {
    data = ::operator new (bytes, std::align_val_t{kArrayAlignment});
  } catch (const std::bad_alloc&) {
    budget_->give_back(bytes);
    throw;
  }
  return {data, release};
}

}  // namespace verdel::internal
