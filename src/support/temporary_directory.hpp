#pragma once

#include <string>

#include "support/temporary.hpp"

namespace verdel::internal {

/// A directory of its own (mode 0700) inside `parent`, called `prefix` and some random letters; it
/// is removed with all its files when the owner goes. Throws OSError if it cannot be made.
class TemporaryDirectory {
 public:
  TemporaryDirectory(const std::string& parent, const std::string& prefix);

  const std::string& path() const { return directory_.path(); }

 private:
  Temporary directory_;
};

}  // namespace verdel::internal
