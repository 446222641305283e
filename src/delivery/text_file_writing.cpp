#include "delivery/text_file_writing.hpp"

#include <unistd.h>

#include <cerrno>

#include "delivery/unfinished_file.hpp"

namespace verdel::internal {

void write_text_file(const std::string& target, std::string_view text) {
  UnfinishedFile file(target);
  while (!text.empty()) {
    const ssize_t put = write(file.descriptor(), text.data(), text.size());
    if (put >= 0) {
      text.remove_prefix(static_cast<std::size_t>(put));
    } else if (errno != EINTR) {
      file.refuse(errno);
    }
  }
  file.take_target_name();
}

}  // namespace verdel::internal
