#include "inputs/byte_source.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>

#include "support/descriptor.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

void require_regular(const struct stat& status, const std::string& path) {
  if (S_ISREG(status.st_mode)) return;
  const std::string_view kind = S_ISDIR(status.st_mode)    ? "a folder"
                                : S_ISFIFO(status.st_mode) ? "a pipe"
                                : S_ISSOCK(status.st_mode) ? "a socket"
                                                           : "a device";
  throw RuntimeError(quoted_path(path).append(" is ").append(kind).append(", not an audio file."));
}

std::size_t read_fully(int fd, std::uint64_t offset, std::span<unsigned char> into,
                       const std::string& path) {
  std::size_t done = 0;
  while (done < into.size()) {
    const ssize_t count =
        ::pread(fd, into.data() + done, into.size() - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw OSError("cannot read " + quoted_path(path), errno);
    if (count == 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}

}  // namespace

ByteSource open_regular_file(const std::string& path) {
  // Asked before opening, because opening alone can set a device off; and again on what was opened,
  // because the name may have changed hands.
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) throw OSError("cannot open " + quoted_path(path), errno);
  require_regular(status, path);
  const auto file = std::make_shared<Descriptor>(
      ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (!*file) throw OSError("cannot open " + quoted_path(path), errno);
  if (::fstat(file->get(), &status) != 0) throw OSError("cannot read " + quoted_path(path), errno);
  require_regular(status, path);
  return {static_cast<std::uint64_t>(status.st_size),
          [file, path](std::uint64_t offset, std::span<unsigned char> into) {
            return read_fully(file->get(), offset, into, path);
          }};
}

ByteSource source_from(ByteSource source, std::uint64_t first) {
  if (first == 0) return source;
  const std::uint64_t rest = source.size > first ? source.size - first : 0;
  return {rest, [read_at = std::move(source.read_at), first](std::uint64_t offset,
                                                             std::span<unsigned char> into) {
            return read_at(first + offset, into);
          }};
}

}  // namespace verdel::internal
