#pragma once

#include <string>
#include <vector>

#include "support/descriptor.hpp"
#include "support/temporary.hpp"

namespace verdel::internal {

/// A new, empty file in its target's folder, and behind a link in the folder of the file that the
/// link leads to: called ".verdel-", 8 lower-case letters or digits, and
/// ".part". Its owner writes it and gives it the target's name; otherwise it goes with its owner.
/// While it lives it is locked, which tells it from one that a killed process has left behind.
class UnfinishedFile {
 public:
  /// Throws OSError, as take_target_name(), with the target's name and the system's reason.
  explicit UnfinishedFile(const std::string& target);
  UnfinishedFile(const UnfinishedFile&) = delete;
  UnfinishedFile& operator=(const UnfinishedFile&) = delete;

  int descriptor() const { return opened_.get(); }
  /// Where it lies until it has its target's name.
  const std::string& path() const { return file_.path(); }

  /// Replaces what stands under the target's name in one step, once the disk holds all that was
  /// written; the last call.
  void take_target_name();

  /// Throws what a refusal by the system comes to.
  [[noreturn]] void refuse(int error) const;

 private:
  std::string create();

  std::string target_, file_behind_;  ///< as it was given; what a link there leads to
  Descriptor opened_;
  Temporary file_;
};

/// Removes from a folder, and from those that links among `targets` lead to, the unfinished files
/// that no living process writes: regular files of such a name whose lock is free. What cannot be
/// opened, or locked, or looked at stays.
void sweep_unfinished_files(const std::string& folder, const std::vector<std::string>& targets);

}  // namespace verdel::internal
