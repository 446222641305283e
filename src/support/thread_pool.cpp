#include "support/thread_pool.hpp"

#include <pthread.h>

#include <exception>

namespace verdel::internal {
namespace {

// Linux refuses names of more than 15 bytes outright instead of cutting them.
constexpr std::size_t kLongestThreadName = 15;

void name_this_thread(const std::string& name) {
  const std::string shortened = name.substr(0, kLongestThreadName);
#if defined(__APPLE__)
  pthread_setname_np(shortened.c_str());
#else
  pthread_setname_np(pthread_self(), shortened.c_str());
#endif
}

}  // namespace

ThreadPool::ThreadPool(std::size_t threads, const std::string& name_prefix) {
  threads_.reserve(threads);
  try {
    for (std::size_t i = 0; i < threads; ++i) {
      threads_.emplace_back(
          [this, name = name_prefix + "_" + std::to_string(i), named = !name_prefix.empty()] {
            if (named) name_this_thread(name);
            run();
          });
    }
  } catch (...) {
    // The system gave fewer threads than asked for: those that run must end before the members do.
    {
      const std::lock_guard lock(mutex_);
      closing_ = true;
    }
    wake_.notify_all();
    for (auto& thread : threads_) thread.join();
    throw;
  }
}

ThreadPool::~ThreadPool() {
  {
    const std::lock_guard lock(mutex_);
    closing_ = true;
  }
  wake_.notify_all();
  for (auto& thread : threads_) thread.join();
}

void ThreadPool::cancel_pending() {
  std::deque<std::function<void()>> dropped;
  const std::lock_guard lock(mutex_);
  dropped.swap(tasks_);
}

void ThreadPool::enqueue(std::function<void()> task) {
  {
    const std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  wake_.notify_one();
}

void ThreadPool::run() {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return closing_ || !tasks_.empty(); });
      if (tasks_.empty()) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task();
  }
}

void run_indexed(ThreadPool* pool, std::size_t count,
                 const std::function<void(std::size_t)>& function) {
  if (pool == nullptr || pool->size() <= 1 || count <= 1) {
    for (std::size_t i = 0; i < count; ++i) function(i);
    return;
  }
  std::vector<std::future<void>> results;
  results.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    results.push_back(pool->submit([&function, i] { function(i); }));
  }
  std::exception_ptr first_failure;
  for (auto& result : results) {
    try {
      result.get();
    } catch (...) {
      if (!first_failure) first_failure = std::current_exception();
    }
  }
  if (first_failure) std::rethrow_exception(first_failure);
}

}  // namespace verdel::internal
