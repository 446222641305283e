#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <iterator>
#include <thread>

#include "driver/small_projects.hpp"

#ifdef __GLIBC__
#include <malloc.h>
#endif

// What a process that renders again and again holds between two renders.
namespace verdel::internal {
namespace {

using testing::SmallProject;
namespace fs = std::filesystem;

struct Holdings {
  std::size_t threads = 0;      // where the system tells
  std::size_t descriptors = 0;  // open files
  std::size_t memory = 0;       // bytes in use, where the C library tells
};

Holdings holdings() {
  Holdings now;
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) >= 0) ++now.descriptors;
  }
  std::error_code none;
  now.threads = static_cast<std::size_t>(
      std::distance(fs::directory_iterator("/proc/self/task", none), fs::directory_iterator()));
#if defined(__GLIBC__) && !defined(VERDEL_SANITIZED)
  // What is resident says little: the arenas of ended threads come and go with their free memory.
  const struct mallinfo2 heap = mallinfo2();
  now.memory = heap.uordblks + heap.hblkhd;
#endif
  return now;
}

TEST(RepeatedRuns, HoldNoMoreThanTheFirstOne) {
  const std::size_t runs = std::getenv("VERDEL_LONG_TESTS") != nullptr ? 100 : 8;
  const SmallProject project({"Kick", "Bass"}, {.frames = 61 * 1000, .sr = 1000});
  const testing::TemporaryFolder scratch;
  Machine machine = system_machine();
  machine.temporary_folder = [&] { return scratch.path(); };
  machine.processors = [] { return std::size_t{4}; };
  auto arguments = project.render({"--progress-json"});
  std::erase(arguments, "--no-report");

  Holdings after_second;
  for (std::size_t run = 1; run <= runs; ++run) {
    ASSERT_EQ(testing::run_entry(shipping_main, arguments, machine).status, 0);
    // The first two fill the caches of the libraries and the allocator's arenas.
    if (run == 2) after_second = holdings();
  }
  Holdings at_end = holdings();
  // The system's list may name a joined thread for a moment more.
  for (int look = 0; look < 1000 && at_end.threads > after_second.threads; ++look) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    at_end = holdings();
  }
  EXPECT_LE(at_end.threads, after_second.threads);
  EXPECT_EQ(at_end.descriptors, after_second.descriptors);
  EXPECT_TRUE(fs::is_empty(scratch.path()));
  constexpr std::size_t kSmallChange = 64 << 10;
  EXPECT_LE(at_end.memory, after_second.memory + kSmallChange);
}

}  // namespace
}  // namespace verdel::internal
