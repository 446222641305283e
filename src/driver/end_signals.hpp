#pragma once

#include <signal.h>

#include <atomic>
#include <future>
#include <optional>

#include "support/stop_token.hpp"
#include "support/thread_pool.hpp"

namespace verdel::internal {

/// SIGINT, SIGTERM and SIGHUP as the wish to end a run. The first one sets the stop token; when the
/// run has given up, or has not in good time, nothing temporary is left on the disk and the process
/// dies by that very signal, so that its parent sees it. Further ones change nothing. One that the
/// process was started to ignore, as under nohup, is still ignored.
///
/// Threads: one that watches. It is made before any other thread, so that all of them leave these
/// signals to it.
class EndSignals {
 public:
  EndSignals();
  ~EndSignals() { finish(); }
  EndSignals(const EndSignals&) = delete;
  EndSignals& operator=(const EndSignals&) = delete;

  StopToken token() const { return StopToken(stop_); }

  /// The run is over: does not return if one of the signals has come, and otherwise leaves the
  /// signals as they were found.
  void finish();

 private:
  int watch(const std::future<void>& run_ended);

  sigset_t watched_{}, mask_before_{};
  std::atomic<bool> stop_ = false, finishing_ = false;
  std::promise<void> run_ended_;
  std::promise<pthread_t> watcher_;
  std::future<int> received_;  // 0 if none came
  std::optional<ThreadPool> thread_;
};

}  // namespace verdel::internal
