#include "allocation/worker_budgets.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

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

TEST(WorkerBudgets, CountWorkers) {
  const Machine roomy = machine(16, 64, 8), large = machine(64, 64, 16);
  const auto channels = [](std::size_t frames, std::size_t output, std::size_t count,
                           const Machine& on) {
    return _c14_channel_worker_count(frames, output, 4, count, on);
  };
  const auto inner = [](std::size_t processors, std::size_t count) {
    return _c14_inner_worker_count(count, machine(1, 1, processors));
  };
  const auto intervals = [](std::size_t frames, std::size_t active, const Machine& on) {
    return _c14_time_worker_count(frames, 48000, 4, active, on);
  };
  // 70 GiB of 100 are usable and 60 of the 100 beyond the margin of 2.
  const auto renders = [](std::uint64_t persistent, std::uint64_t files, std::uint64_t memory,
                          std::uint64_t space = 102) {
    return render_worker_count(persistent * kGiB, files * kGiB, memory * kGiB,
                               machine(100, space, 12));
  };
  // 4,000,000 cells are 288 MB a scorer, 224 MB a projector.
  const auto scorers = [](std::size_t limit, const Machine& on) {
    return _c14_stem_worker_count(4000000, limit, on);
  };
  const auto projectors = [](std::size_t stems, std::size_t limit, const Machine& on) {
    return _c14_projection_worker_count(stems, 4000000, limit, on);
  };
  using Counts = std::vector<std::size_t>;
  // One channel, two, two long ones, those with much memory, a short excerpt of them, no space.
  EXPECT_EQ(
      (Counts{channels(1000000, 1000000, 1, roomy), channels(2500000, 2500000, 2, roomy),
              channels(2500001, 2500001, 2, roomy),
              channels(2500001, 2500001, 2, machine(48, 64, 8)), channels(9000000, 1000, 2, roomy),
              channels(1000000, 1000000, 2, machine(16, 3, 8))}),
      (Counts{1, 2, 1, 2, 2, 1}));
  EXPECT_EQ((Counts{inner(1, 2), inner(2, 1), inner(8, 2), inner(8, 1), inner(64, 1)}),
            (Counts{1, 1, 3, 6, 6}));
  // Less than a minute, a minute, the most; by processors, by memory, by space, without any.
  EXPECT_EQ((Counts{intervals(60 * 48000 - 1, 1, large), intervals(60 * 48000, 1, large),
                    intervals(600 * 48000, 1, large), intervals(600 * 48000, 2, machine(64, 64, 8)),
                    intervals(600 * 48000, 1, machine(8, 64, 16)),
                    intervals(600 * 48000, 1, machine(64, 6, 16)),
                    intervals(600 * 48000, 1, machine(1, 0, 16))}),
            (Counts{1, 3, 6, 4, 3, 2, 1}));
  // By processors, by memory beside the audio, by space, beside more audio than fits, no space.
  EXPECT_EQ((Counts{renders(10, 1, 1), renders(10, 8, 2), renders(0, 20, 1), renders(90, 1, 1),
                    renders(10, 1, 1, 1)}),
            (Counts{12, 6, 3, 1, 1}));
  EXPECT_EQ((Counts{scorers(9, large), scorers(2, large), scorers(6, machine(8, 0, 16)),
                    scorers(6, machine(1, 0, 16))}),
            (Counts{6, 2, 2, 1}));
  EXPECT_EQ((Counts{projectors(8, 6, large), projectors(2, 6, large), projectors(8, 1, large),
                    projectors(8, 6, machine(4, 0, 16))}),
            (Counts{3, 2, 1, 2}));
}

TEST(WorkerBudgets, TheEnvironmentLowersProjection) {
  const std::pair<const char*, std::size_t> kCases[] = {
      {"1", 1},    {" +2 ", 2}, {"9", 3},  {"99999999999999999999999", 3}, {"0", 0}, {"-2", 0},
      {"many", 0}, {"", 0},     {"2.0", 0}};
  for (const auto& [text, expected] : kCases) {
    setenv("VERDEL_C14_PROJECTION_WORKERS", text, 1);
    std::size_t count = 0;
    const auto failure = testing::failure_of<ValueError>(
        [&] { count = _c14_projection_worker_count(8, 1000, 6, machine(64, 0, 16)); });
    EXPECT_EQ(count, expected) << text;
    EXPECT_EQ(failure,
              count == 0 ? "VERDEL_C14_PROJECTION_WORKERS must be a positive integer" : "");
  }
  unsetenv("VERDEL_C14_PROJECTION_WORKERS");
}

}  // namespace
}  // namespace verdel::internal
