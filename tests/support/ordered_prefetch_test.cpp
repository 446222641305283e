#include "support/ordered_prefetch.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace verdel::internal {
namespace {

TEST(OrderedPrefetch, KeepsOrderAndNeverHoldsMoreThanItMay) {
  for (const auto& [workers, spare] :
       {std::pair<std::size_t, std::size_t>{1, 0}, {1, 2}, {2, 0}, {2, 1}, {3, 0}, {9, 0}}) {
    std::size_t taken = 0;
    std::size_t handed_over = 0;
    auto items = [&]() -> std::optional<std::size_t> {
      EXPECT_LE(taken - handed_over, workers + spare) << "items are taken on demand";
      if (taken == 6) return std::nullopt;
      return taken++;
    };
    OrderedPrefetch sequence(
        [](std::size_t i) {
          std::this_thread::sleep_for(std::chrono::milliseconds(2 * (6 - i)));
          return 10 * i;
        },
        items, workers, "test", spare);
    EXPECT_EQ(taken, 0U) << "nothing happens before the first request";
    for (std::size_t i = 0; i < 6; ++i) {
      EXPECT_EQ(sequence.next(), 10 * i);
      ++handed_over;
    }
    EXPECT_EQ(sequence.next(), std::nullopt);
    EXPECT_EQ(sequence.next(), std::nullopt);
  }
}

TEST(OrderedPrefetch, OneWorkerIsTheConsumer) {
  const auto thread = [](std::size_t) { return std::this_thread::get_id(); };
  EXPECT_EQ(_ordered_prefetch(thread, 2, 1, "test").next(), std::this_thread::get_id());
}

TEST(OrderedPrefetch, AFailureComesAtItsTurnAndEndsTheSequence) {
  for (const std::size_t workers : {1U, 3U}) {
    std::atomic<int> begun{0};
    auto sequence = _ordered_prefetch(
        [&](std::size_t i) {
          ++begun;
          if (i == 1) throw std::runtime_error("one");
          return i;
        },
        100, workers, "test");
    EXPECT_EQ(sequence.next(), 0U);
    EXPECT_THROW(sequence.next(), std::runtime_error);
    EXPECT_LE(begun, 5);
  }
}

}  // namespace
}  // namespace verdel::internal
