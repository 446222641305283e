#include <gtest/gtest.h>

#if __has_include(<linux/seccomp.h>)
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <iostream>

#include "delivery/delivery_files.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

/// From now on the system answers "no space left" to one call of this process.
bool refuse_call(unsigned int number) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSPC),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{4, program};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

/// Writes a file in a process of its own that cannot make the call; the words go to its errors.
[[noreturn]] void write_without(unsigned int call, const std::string& path) {
  const auto audio = AudioArray::zeros(2, 1000);
  const bool refused = refuse_call(call);
  std::cerr << testing::failure_of<OSError>([&] {
    write_in_parts(path, {44100, 2, 1000}, audio.view());
  });
  _exit(refused ? 1 : 0);
}

// A file system across a network may report a full disk no earlier than when a file is synced or
// closed.
TEST(LateRefusal, OnSyncingOrClosingLosesNothing) {
  for (const unsigned int call : {unsigned{SYS_fsync}, unsigned{SYS_close}}) {
    const testing::TemporaryFolder folder;
    testing::write_bytes(folder.path("kept.wav"), "a recording");
    EXPECT_EXIT(write_without(call, folder.path("kept.wav")), ::testing::ExitedWithCode(1),
                "cannot write .*kept.wav.*: No space left on device");
    const std::map<std::string, std::string> kept = {{"kept.wav", "a recording"}};
    EXPECT_EQ(testing::contents_of(folder.path()), kept) << call;
  }
}

}  // namespace
}  // namespace verdel::internal
#endif
