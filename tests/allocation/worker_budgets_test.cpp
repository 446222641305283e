#include "allocation/worker_budgets.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/errors.hpp"

namespace verdel::internal {
namespace {

constexpr std::uint64_t kGiB = std::uint64_t{1} << 30U;

Machine machine(std::uint64_t memory, std::uint64_t space, std::size_t processors) {
  Machine result = system_machine();
  result.physical_memory = [memory] { return memory; };
  result.temporary_space = [space] { return space; };
  result.processors = [processors] { return processors; };
  return result;
}

TEST(ResourceBudget, TestsMemoryBeforeSpace) {
  // 8 stereo stems of 4 minutes: 20 arrays of 2 channels are 3,386,880,000 bytes, an interval's
  // files 8 * 1025 * 3834 * 60.
  const std::size_t frames = 44100 * 240;
  const auto error = [&](std::uint64_t memory, std::uint64_t space) {
    return _c14_resource_budget_error(frames, 44100, 8, 2, machine(memory, space, 2)).value_or("");
  };
  EXPECT_EQ(error(16 * kGiB, 16 * kGiB), "");
  EXPECT_EQ(error(7 * kGiB, 0),
            "this render needs about 5 GiB of working memory, but this Mac has 7 GiB; use fewer "
            "stems or a shorter bounce");
  EXPECT_TRUE(error(16 * kGiB, 3 * kGiB)
                  .starts_with("VERDEL needs about 4 GiB free for temporary processing files\n"));
  // The bound itself fits: the files' bytes and the margin of 2 GiB.
  const std::uint64_t files =
      std::uint64_t{8} * 1025 * (((44100 * 20 + 98304) + 255) / 256 + 2) * 60;
  EXPECT_EQ(error(16 * kGiB, files + 2 * kGiB), "");
  EXPECT_NE(error(16 * kGiB, files + 2 * kGiB - 1), "");
}

TEST(WorkerCounts, Channels) {
  const Machine roomy = machine(16 * kGiB, 64 * kGiB, 8);
  EXPECT_EQ(_c14_channel_worker_count(1000000, 1000000, 4, 1, roomy), 1U);
  EXPECT_EQ(_c14_channel_worker_count(1000000, 1000000, 4, 2, roomy), 2U);
  EXPECT_EQ(_c14_channel_worker_count(2500000, 2500000, 4, 2, roomy), 2U);
  EXPECT_EQ(_c14_channel_worker_count(2500001, 2500001, 4, 2, roomy), 1U);
  EXPECT_EQ(_c14_channel_worker_count(9000000, 1000, 4, 2, roomy), 2U) << "a short excerpt";
  EXPECT_EQ(_c14_channel_worker_count(2500001, 2500001, 4, 2, machine(48 * kGiB, 64 * kGiB, 8)),
            2U);
  EXPECT_EQ(_c14_channel_worker_count(1000000, 1000000, 4, 2, machine(16 * kGiB, 3 * kGiB, 8)), 1U);
}

TEST(WorkerCounts, InsideAChannel) {
  const auto inner = [](std::size_t processors, std::size_t channels) {
    return _c14_inner_worker_count(channels, machine(kGiB, kGiB, processors));
  };
  EXPECT_EQ(inner(1, 2), 1U);
  EXPECT_EQ(inner(2, 1), 1U);
  EXPECT_EQ(inner(8, 2), 3U);
  EXPECT_EQ(inner(8, 1), 6U);
  EXPECT_EQ(inner(64, 1), 6U);
}

TEST(WorkerCounts, Intervals) {
  const auto count = [](std::size_t frames, std::size_t active, const Machine& on) {
    return _c14_time_worker_count(frames, 48000, 4, active, on);
  };
  const Machine roomy = machine(64 * kGiB, 64 * kGiB, 16);
  EXPECT_EQ(count(60 * 48000 - 1, 1, roomy), 1U);
  EXPECT_EQ(count(60 * 48000, 1, roomy), 3U) << "as many as intervals";
  EXPECT_EQ(count(600 * 48000, 1, roomy), 6U);
  EXPECT_EQ(count(600 * 48000, 2, machine(64 * kGiB, 64 * kGiB, 8)), 4U);
  EXPECT_EQ(count(600 * 48000, 1, machine(8 * kGiB, 64 * kGiB, 16)), 3U) << "memory";
  EXPECT_EQ(count(600 * 48000, 1, machine(64 * kGiB, 6 * kGiB, 16)), 2U) << "space";
  EXPECT_EQ(count(600 * 48000, 1, machine(kGiB, 0, 16)), 1U);
}

// 70 GiB of 100 are usable and 60 of the 100 beyond the margin of 2.
TEST(WorkerCounts, RendersBesideTheAudio) {
  const auto count = [](std::uint64_t persistent, std::uint64_t files, std::uint64_t memory,
                        std::uint64_t space = 102) {
    return render_worker_count(persistent * kGiB, files * kGiB, memory * kGiB,
                               machine(100 * kGiB, space * kGiB, 12));
  };
  EXPECT_EQ(count(10, 1, 1), 12U) << "one a processor";
  EXPECT_EQ(count(10, 8, 2), 6U) << "memory and files beside the audio";
  EXPECT_EQ(count(0, 20, 1), 3U) << "files on the volume";
  EXPECT_EQ(count(69, 8, 2), 1U);
  EXPECT_EQ(count(90, 1, 1), 1U) << "more audio than fits";
  EXPECT_EQ(count(10, 1, 1, 1), 1U) << "no space beyond the margin";
}

TEST(WorkerCounts, StemsByMemory) {
  const std::size_t cells = 4000000;  // 288 MB a scorer, 224 MB a projector
  EXPECT_EQ(_c14_stem_worker_count(cells, 6, machine(64 * kGiB, 0, 16)), 6U);
  EXPECT_EQ(_c14_stem_worker_count(cells, 2, machine(64 * kGiB, 0, 16)), 2U);
  EXPECT_EQ(_c14_stem_worker_count(cells, 6, machine(8 * kGiB, 0, 16)), 2U);
  EXPECT_EQ(_c14_stem_worker_count(cells, 6, machine(kGiB, 0, 16)), 1U);
  EXPECT_EQ(_c14_projection_worker_count(8, cells, 6, machine(64 * kGiB, 0, 16)), 3U);
  EXPECT_EQ(_c14_projection_worker_count(2, cells, 6, machine(64 * kGiB, 0, 16)), 2U);
  EXPECT_EQ(_c14_projection_worker_count(8, cells, 6, machine(4 * kGiB, 0, 16)), 2U);
}

TEST(WorkerCounts, EnvironmentLowersProjection) {
  const char* const variable = "VERDEL_C14_PROJECTION_WORKERS";
  const Machine roomy = machine(64 * kGiB, 0, 16);
  for (const auto& [text, expected] : {std::pair<const char*, std::size_t>{"1", 1},
                                       {" +2 ", 2},
                                       {"9", 3},
                                       {"99999999999999999999999", 3}}) {
    setenv(variable, text, 1);
    EXPECT_EQ(_c14_projection_worker_count(8, 1000, 6, roomy), expected) << text;
  }
  for (const char* text : {"0", "-2", "many", "", "2.0"}) {
    setenv(variable, text, 1);
    EXPECT_THROW(_c14_projection_worker_count(8, 1000, 6, roomy), ValueError) << text;
  }
  unsetenv(variable);
}

}  // namespace
}  // namespace verdel::internal
