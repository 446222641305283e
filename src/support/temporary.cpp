#include "support/temporary.hpp"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace verdel::internal {
namespace {

struct Registry {
  std::mutex lock;
  std::vector<const Temporary*> known;
};

// Never destroyed: it may be asked for while the process's statics go.
Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

void forget(const Temporary& temporary) {
  std::erase(registry().known, &temporary);
}

/// Whether the lock could be taken in time. A timed mutex would do the same, but the thread
/// sanitizer of g++ 12 does not know its call and reports races that are none.
bool lock_within(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds patience) {
  constexpr std::chrono::milliseconds kPause{1};
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!lock.try_lock()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

bool remove_from_disk(const Temporary& temporary) {
  // A file or an empty directory goes without being opened, which takes a descriptor and may be
  // refused: a run that has come to its limit of open files leaves nothing either.
  std::error_code error;
  std::filesystem::remove(temporary.path(), error);
  if (error) std::filesystem::remove_all(temporary.path(), error);
  return !error;
}

}  // namespace

Temporary::Temporary(const std::function<std::string()>& create) {
  const std::lock_guard lock(registry().lock);
  auto& known = registry().known;
  known.reserve(known.size() + 1);  // nothing may fail any more once it has been made
  path_ = create();
  known.push_back(this);
}

Temporary::~Temporary() {
  const std::lock_guard lock(registry().lock);
  if (path_.empty()) return;
  remove_from_disk(*this);
  forget(*this);
}

void Temporary::hand_over(const std::function<void()>& hand_over) {
  const std::lock_guard lock(registry().lock);
  hand_over();
  forget(*this);
  path_.clear();
}

void remove_all_temporaries(std::chrono::milliseconds patience) {
  std::unique_lock lock(registry().lock, std::defer_lock);
  if (!lock_within(lock, patience)) return;
  // A file that an owner makes in a directory between its listing and its removal keeps the
  // directory: the next attempt finds it.
  constexpr int kMostAttempts = 100;
  for (const Temporary* temporary : registry().known) {
    for (int attempt = 0; attempt < kMostAttempts && !remove_from_disk(*temporary); ++attempt) {
    }
  }
  lock.release();
}

}  // namespace verdel::internal
