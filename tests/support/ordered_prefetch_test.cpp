#include "support/ordered_prefetch.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace verdel::internal {
namespace {

TEST(OrderedPrefetch, KeepsOrderHoldsNoMoreThanItMayAndEndsAtAFailure) {
  for (const auto& [workers, spare] :
       {std::pair<std::size_t, std::size_t>{1, 0}, {1, 2}, {2, 0}, {2, 1}, {3, 0}, {9, 0}}) {
    std::size_t taken = 0, handed_over = 0;
    auto items = [&]() -> std::optional<std::size_t> {
      EXPECT_LE(taken - handed_over, workers + spare) << "items are taken on demand";
      return taken == 6 ? std::nullopt : std::optional(taken++);
    };
    const auto ten_times = [consumer = std::this_thread::get_id(), workers](std::size_t i) {
      EXPECT_EQ(std::this_thread::get_id() == consumer, workers == 1);
      std::this_thread::sleep_for(std::chrono::milliseconds(2 * (6 - i)));
      return i == 3 ? throw std::runtime_error("three") : 10 * i;
    };
    OrderedPrefetch sequence(ten_times, items, workers, "test", spare);
    EXPECT_EQ(taken, 0U) << "nothing happens before the first request";
    for (; handed_over < 3; ++handed_over) EXPECT_EQ(sequence.next(), 10 * handed_over);
    EXPECT_THROW(sequence.next(), std::runtime_error);
    EXPECT_EQ(sequence.next(), workers == 1 ? std::optional(std::size_t{40}) : std::nullopt);
  }
  auto two = _ordered_prefetch([](std::size_t i) { return i; }, 2, 2, "test");
  for (const std::optional<std::size_t> each : {0U, 1U}) EXPECT_EQ(two.next(), each);
  EXPECT_EQ(two.next(), std::nullopt);
}

}  // namespace
}  // namespace verdel::internal
