#include "support/temporary_directory.hpp"

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "support/errors.hpp"

namespace verdel {

TemporaryDirectory::TemporaryDirectory(const std::string& parent, const std::string& prefix)
    : path_(parent + "/" + prefix + "XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) {
    throw OSError("cannot create a temporary directory in " + parent, errno);
  }
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace verdel
