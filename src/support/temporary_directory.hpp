#pragma once

#include <string>

namespace verdel {

/// A directory of its own (mode 0700) inside `parent`, called `prefix` and some random letters; it
/// is removed with all its files when the owner goes. Throws OSError if it cannot be made.
class TemporaryDirectory {
 public:
  TemporaryDirectory(const std::string& parent, const std::string& prefix);
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace verdel
