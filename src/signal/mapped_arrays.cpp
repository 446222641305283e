#include "signal/mapped_arrays.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "signal/arrays.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
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

}  // namespace

MappedArray::MappedArray(const std::string& path, std::size_t rows, std::size_t columns)
    : rows_(rows), columns_(columns) {
  file_ = Descriptor(open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file_) throw OSError("cannot create the temporary file " + printable(path), errno);
  unlink(path.c_str());
  if (const int error = reserve_space(file_.get(), bytes()); error != 0) {
    throw OSError("cannot reserve " + std::to_string(bytes() >> 20) +
                      " MiB of temporary space for " + printable(path),
                  error);
  }
  void* data = mmap(nullptr, bytes(), PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
  if (data == MAP_FAILED) throw OSError("cannot map the temporary file " + printable(path), errno);
  data_ = static_cast<float*>(data);
}

MappedArray::~MappedArray() {
  munmap(data_, bytes());
}

void MappedArray::fetch_row([[maybe_unused]] std::size_t index) {
#if defined(MADV_POPULATE_WRITE)
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const auto row_begin = reinterpret_cast<std::uintptr_t>(row(index).data());
  const auto begin = row_begin / page * page;
  const auto end = row_begin + columns_ * sizeof(float);
  // A kernel that does not know this answers with an error, and the pages come one by one.
  madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
#endif
}

void MappedArray::flush() {
  // Write-back is a courtesy to the machine's memory, not a promise: what it answers is not looked
  // at. msync(MS_SYNC) would make the render wait for the disk, a quarter of its time.
#if defined(SYNC_FILE_RANGE_WRITE)
  static_cast<void>(sync_file_range(file_.get(), 0, 0, SYNC_FILE_RANGE_WRITE));
#else
  msync(data_, bytes(), MS_ASYNC);
#endif
}

}  // namespace verdel::internal
