#pragma once

#include <atomic>

#include "support/errors.hpp"

namespace verdel::internal {

/// A wish to stop, seen by everything that runs long. Copied freely; an empty token never stops.
/// The flag belongs to whoever started the run and outlives it; a signal handler may set it.
class StopToken {
 public:
  StopToken() = default;
  explicit StopToken(const std::atomic<bool>& flag) : flag_(&flag) {}

  bool requested() const { return flag_ != nullptr && flag_->load(std::memory_order_relaxed); }

  /// Throws Cancelled once the run is to stop. Long loops call it every few milliseconds of work.
  void check() const {
    if (requested()) throw Cancelled();
  }

 private:
  const std::atomic<bool>* flag_ = nullptr;
};

}  // namespace verdel::internal
