#include "driver/end_signals.hpp"

#include <unistd.h>

#include <chrono>
#include <csignal>

#include "driver/entry.hpp"
#include "support/temporary.hpp"

namespace verdel::internal {
namespace {

constexpr int kEndSignals[] = {SIGINT, SIGTERM, SIGHUP};

// Destructors get this long before everything temporary is removed over their heads: the run may
// wait for a disk, or for a reader that does not read.
constexpr std::chrono::milliseconds kGrace{300};
constexpr std::chrono::milliseconds kRemovalPatience{200};

bool is_ignored(int signal) {
  struct sigaction action {};
  return sigaction(signal, nullptr, &action) == 0 && (action.sa_flags & SA_SIGINFO) == 0 &&
         action.sa_handler == SIG_IGN;
}

[[noreturn]] void die_by(int signal) {
  std::signal(signal, SIG_DFL);
  sigset_t only{};
  sigemptyset(&only);
  sigaddset(&only, signal);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  std::raise(signal);
  _exit(kExitCancelled);  // the first process of a container cannot die by a signal of its own
}

}  // namespace

EndSignals::EndSignals() {
  sigemptyset(&watched_);
  bool any = false;
  for (const int signal : kEndSignals) {
    if (is_ignored(signal)) continue;
    sigaddset(&watched_, signal);
    any = true;
  }
  if (!any) return;
  pthread_sigmask(SIG_BLOCK, &watched_, &mask_before_);
  thread_.emplace(1, "verdel-signals");
  received_ =
      thread_->submit([this, run_ended = run_ended_.get_future()] { return watch(run_ended); });
}

int EndSignals::watch(const std::future<void>& run_ended) {
  watcher_.set_value(pthread_self());
  int signal = 0;
  while (sigwait(&watched_, &signal) != 0) {
  }
  if (finishing_) return 0;
  stop_ = true;
  if (run_ended.wait_for(kGrace) == std::future_status::ready) return signal;
  remove_all_temporaries(kRemovalPatience);
  die_by(signal);
}

void EndSignals::finish() {
  if (!thread_) return;
  finishing_ = true;
  run_ended_.set_value();
  // Wakes the watcher if it still waits. Sent to that thread alone, it goes with it if it does not.
  for (const int signal : kEndSignals) {
    if (sigismember(&watched_, signal) == 1) {
      pthread_kill(watcher_.get_future().get(), signal);
      break;
    }
  }
  const int received = received_.get();
  thread_.reset();
  if (received != 0) die_by(received);
  pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
}

}  // namespace verdel::internal
