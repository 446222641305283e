#include "allocation/worker_budgets.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <utility>

#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/machines.hpp"

namespace verdel::internal {
namespace {

constexpr std::uint64_t kGiB = std::uint64_t{1} << 30U;

Machine machine(std::uint64_t memory, std::uint64_t space, std::size_t processors) {
  return testing::machine_with(processors, memory * kGiB, space * kGiB);
}

// 8 stereo stems of 4 minutes: 20 arrays of 2 channels are 3,386,880,000 bytes, an interval's files
// 8 * 1025 * 3832 * 60, beside the margin of 2 GiB.
TEST(WorkerBudgets, TestMemoryBeforeSpace) {
  const auto error = [](std::uint64_t memory, std::uint64_t space) {
    return _c14_resource_budget_error(44100 * 240, 44100, 8, 2,
                                      testing::machine_with(2, memory, space))
        .value_or("");
  };
  const std::uint64_t files = std::uint64_t{8} * 1025 * 3832 * 60;
  EXPECT_EQ(error(16 * kGiB, files + 2 * kGiB), "");
  EXPECT_TRUE(error(16 * kGiB, files + 2 * kGiB - 1)
                  .starts_with("VERDEL needs about 4 GiB free for temporary processing files\n"));
  EXPECT_EQ(error(7 * kGiB, 0),
            "this render needs about 5 GiB of working memory, but this Mac has 7 GiB; use fewer "
            "stems or a shorter bounce");
}

// By processors, by 36 % of the memory, and by what the environment says, if it says a count.
TEST(WorkerBudgets, CountRenders) {
  const auto renders = [](std::uint64_t bytes) {
    return render_worker_count(bytes * kGiB, machine(100, 0, 12));
  };
  EXPECT_EQ(renders(1), 12U);
  EXPECT_EQ(renders(5), 7U);
  EXPECT_EQ(renders(99), 1U);
  const std::pair<const char*, std::size_t> kCases[] = {
      {"1", 1},    {" +2 ", 2}, {"19", 12}, {"99999999999999999999999", 12}, {"0", 0}, {"-2", 0},
      {"many", 0}, {"", 0},     {"2.0", 0}};
  for (const auto& [text, expected] : kCases) {
    setenv("VERDEL_C14_PROJECTION_WORKERS", text, 1);
    std::size_t count = 0;
    const auto failure = testing::failure_of<ValueError>([&] { count = renders(1); });
    EXPECT_EQ(count, expected) << text;
    EXPECT_EQ(failure,
              count == 0 ? "VERDEL_C14_PROJECTION_WORKERS must be a positive integer" : "");
  }
  unsetenv("VERDEL_C14_PROJECTION_WORKERS");
}

}  // namespace
}  // namespace verdel::internal
