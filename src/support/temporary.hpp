#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace verdel::internal {

/// A file or directory that is gone when its owner is, and one of those that
/// remove_all_temporaries() finds if the process has to end before its owners do. Making it and
/// giving it up happen under one lock, so that at no moment there is one that is not known.
class Temporary {
 public:
  /// `create` makes it and returns its path, or throws and has made nothing.
  explicit Temporary(const std::function<std::string()>& create);
  /// Removes what stands at the path, with everything in it.
  ~Temporary();
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;

  const std::string& path() const { return path_; }

  /// `hand_over` takes it away from its path; what stands there afterwards is nobody's business
  /// any more. If that throws, everything is as before.
  void hand_over(const std::function<void()>& hand_over);

 private:
  std::string path_;
};

/// For a process that ends itself at its next step: removes all there are, and from then on whoever
/// makes one, or gives one up, waits for ever. If somebody else holds the lock for longer than
/// `patience` (a file system that does not answer), nothing is removed.
void remove_all_temporaries(std::chrono::milliseconds patience);

}  // namespace verdel::internal
