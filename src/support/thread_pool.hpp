#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace verdel::internal {

/// A fixed number of named threads that run tasks in the order in which they were submitted.
/// Leaving its scope finishes every task, submitted ones included; cancel_pending() first drops
/// those that no thread has begun.
class ThreadPool {
 public:
  /// Threads are called "{name_prefix}_{number}", cut to what the system accepts; an empty prefix
  /// leaves them unnamed.
  ThreadPool(std::size_t threads, const std::string& name_prefix);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  std::size_t size() const { return threads_.size(); }

  /// Queues a task; its result or failure is in the future.
  template <class Function>
  auto submit(Function function) -> std::future<decltype(function())> {
    using Result = decltype(function());
    auto task = std::make_shared<std::packaged_task<Result()>>(std::move(function));
    auto result = task->get_future();
    enqueue([task] { (*task)(); });
    return result;
  }

  /// Drops the tasks not yet begun; their futures report a broken promise.
  void cancel_pending();

 private:
  void enqueue(std::function<void()> task);
  void run();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_;
  bool closing_ = false;
  std::vector<std::thread> threads_;
};

/// Calls function(0 .. count - 1), spread over the pool, and waits for all of it; a null pool means
/// "run here". The failure of the lowest index is the one that the caller sees.
void run_indexed(ThreadPool* pool, std::size_t count,
                 const std::function<void(std::size_t)>& function);

}  // namespace verdel::internal
