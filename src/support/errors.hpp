#pragma once

#include <stdexcept>
#include <string>

/// The four kinds of failure that the system knows, and the end of a cancelled run. Each carries
/// the one line that the user reads; a bug is an assert, never one of these.
namespace verdel::internal {

/// Bad inputs and shapes.
class ValueError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A step that could not keep its promise.
class RuntimeError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The file system or the operating system refused.
class OSError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  /// "{what}: {the system's words for error_number}", e.g. "cannot open “a.wav”: Permission
  /// denied".
  OSError(const std::string& what, int error_number);
};

/// Non-finite values, broken conservation.
class FloatingPointError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The run was asked to stop from outside; see StopToken.
class Cancelled : public std::exception {
 public:
  const char* what() const noexcept override { return "the run was cancelled"; }
};

}  // namespace verdel::internal
