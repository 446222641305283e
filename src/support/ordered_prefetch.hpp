#pragma once

#include <cassert>
#include <cstddef>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "support/thread_pool.hpp"

namespace verdel::internal {

/// A lazy sequence: `function` of each item, in the order of the items, computed on up to `workers`
/// threads ahead of the consumer. Nothing happens before the first next(). At most `workers +
/// spare` tasks exist at any moment, finished ones that wait for their turn included: `spare` of
/// them keep the threads at work while the oldest takes longest. `next_item` (an item, or nothing
/// at the end) is called on the consumer's thread, as results are asked for. With one worker there
/// is no thread: each result is computed when it is asked for. A failure surfaces at its item's
/// turn, and ends the sequence; an abandoned sequence drops what has not begun and waits for what
/// has.
template <class Function, class NextItem>
class OrderedPrefetch {
  using Item = typename std::invoke_result_t<NextItem&>::value_type;
  using Result = std::invoke_result_t<Function&, Item>;

 public:
  OrderedPrefetch(Function function, NextItem next_item, std::size_t workers,
                  std::string thread_prefix, std::size_t spare = 0)
      : function_(std::move(function)),
        next_item_(std::move(next_item)),
        workers_(workers),
        most_pending_(workers + spare),
        thread_prefix_(std::move(thread_prefix)) {
    assert(workers >= 1);
  }
  OrderedPrefetch(const OrderedPrefetch&) = delete;
  OrderedPrefetch& operator=(const OrderedPrefetch&) = delete;
  ~OrderedPrefetch() { close(); }

  /// The next result, or nothing when all have been handed over.
  std::optional<Result> next() {
    if (workers_ == 1) {
      auto item = next_item_();
      if (!item) return std::nullopt;
      return function_(std::move(*item));
    }
    if (!pool_ && !closed_) {
      pool_ = std::make_unique<ThreadPool>(workers_, thread_prefix_);
      while (pending_.size() < most_pending_ && submit_one()) {
      }
    }
    if (pending_.empty()) {
      close();
      return std::nullopt;
    }
    auto oldest = std::move(pending_.front());
    pending_.pop_front();
    try {
      std::optional<Result> result(oldest.get());
      submit_one();  // before the result is handed over, so that the pool works meanwhile
      return result;
    } catch (...) {
      close();
      throw;
    }
  }

 private:
  bool submit_one() {
    auto item = next_item_();
    if (!item) return false;
    pending_.push_back(pool_->submit(
        [this, value = std::move(*item)]() mutable { return function_(std::move(value)); }));
    return true;
  }
  void close() {
    closed_ = true;
    if (!pool_) return;
    pool_->cancel_pending();
    pool_.reset();
    pending_.clear();
  }

  Function function_;
  NextItem next_item_;
  std::size_t workers_, most_pending_;
  std::string thread_prefix_;
  bool closed_ = false;
  std::deque<std::future<Result>> pending_;
  std::unique_ptr<ThreadPool> pool_;
};

/// The sequence over the items 0 .. count - 1.
template <class Function>
auto _ordered_prefetch(Function function, std::size_t count, std::size_t workers,
                       std::string thread_prefix, std::size_t spare = 0) {
  auto next_item = [index = std::size_t{0}, count]() mutable -> std::optional<std::size_t> {
    if (index == count) return std::nullopt;
    return index++;
  };
  return OrderedPrefetch<Function, decltype(next_item)>(std::move(function), std::move(next_item),
                                                        workers, std::move(thread_prefix), spare);
}

}  // namespace verdel::internal
