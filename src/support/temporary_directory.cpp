#include "support/temporary_directory.hpp"

#include <stdlib.h>

#include <cerrno>

#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {

TemporaryDirectory::TemporaryDirectory(const std::string& parent, const std::string& prefix)
    : directory_([&] {
        std::string path = parent + "/" + prefix + "XXXXXX";
        if (mkdtemp(path.data()) == nullptr) {
          throw OSError("cannot create a temporary directory in " + quoted_path(parent), errno);
        }
        return path;
      }) {}

}  // namespace verdel::internal
