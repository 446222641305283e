#include "driver/end_signals.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "support/files.hpp"
#include "support/temporary_directory.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

using ::testing::ExitedWithCode;
using ::testing::KilledBySignal;

// A process whose run holds a scratch directory with a file in it when a signal comes.
[[noreturn]] void run(const std::string& folder, std::initializer_list<int> sent,
                      bool listens = true) {
  std::signal(SIGHUP, SIG_IGN);
  EndSignals signals;
  {
    const TemporaryDirectory scratch(folder, "scratch-");
    testing::write_bytes(scratch.path() + "/file", "x");
    for (const int signal : sent) kill(getpid(), signal);
    while (!listens) pause();
    while (!signals.token().requested() && *sent.begin() != SIGHUP) usleep(100);
  }
  signals.finish();
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  _exit(sigismember(&blocked, SIGINT) == 0 && sigismember(&blocked, SIGTERM) == 0 ? 0 : 1);
}

TEST(EndSignals, EndTheRunAndThenTheProcessWhetherItListensOrNot) {
  const testing::TemporaryFolder folder;
  EXPECT_EXIT(run(folder.path(), {SIGTERM}), KilledBySignal(SIGTERM), "");
  EXPECT_EXIT(run(folder.path(), {SIGINT, SIGINT, SIGHUP}), KilledBySignal(SIGINT), "");
  EXPECT_EXIT(run(folder.path(), {SIGTERM}, false), KilledBySignal(SIGTERM), "");
  EXPECT_EXIT(run(folder.path(), {SIGINT, SIGINT}, false), KilledBySignal(SIGINT), "");
  EXPECT_EXIT(run(folder.path(), {SIGHUP}), ExitedWithCode(0), "");
  EXPECT_TRUE(testing::contents_of(folder.path()).empty());
}

}  // namespace
}  // namespace verdel::internal
