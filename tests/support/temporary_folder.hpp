#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace verdel::internal::testing {

/// A folder of the test's own, gone with all that is in it at the end of the scope.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    path_ = (std::filesystem::temp_directory_path() / "verdel-test-XXXXXX").string();
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("cannot make " + path_);
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder& operator=(TemporaryFolder&&) = delete;

  const std::string& path() const { return path_; }
  std::string path(const std::string& name) const { return path_ + "/" + name; }

  /// An empty file, and the folders that lead to it; a name that ends in "/" makes a folder.
  std::string touch(const std::string& name) const {
    const std::string whole = path(name);
    std::filesystem::create_directories(std::filesystem::path(whole).parent_path());
    if (!name.ends_with('/')) std::ofstream(whole, std::ios::app);
    return whole;
  }

 private:
  std::string path_;
};

}  // namespace verdel::internal::testing
