#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace verdel::internal {

/// Working memory for tasks of one kind: a task leases a piece, made if none lies free, and gives
/// it back at the lease's end. As many pieces exist as were out at once; their pages are touched
/// once.
template <class Scratch>
class ScratchPool {
 public:
  explicit ScratchPool(std::function<std::unique_ptr<Scratch>()> make) : make_(std::move(make)) {}

  class Lease {
   public:
    Lease(ScratchPool& pool, std::unique_ptr<Scratch> scratch)
        : pool_(&pool), scratch_(std::move(scratch)) {}
    ~Lease() {
      if (!scratch_) return;
      const std::lock_guard lock(pool_->mutex_);
      pool_->free_.push_back(std::move(scratch_));
    }
    Lease(Lease&&) noexcept = default;
    Lease& operator=(Lease&&) = delete;
    Scratch& operator*() const { return *scratch_; }

   private:
    ScratchPool* pool_;
    std::unique_ptr<Scratch> scratch_;
  };

  Lease lease() {
    const std::lock_guard lock(mutex_);
    if (free_.empty()) free_.push_back(make_());
    auto scratch = std::move(free_.back());
    free_.pop_back();
    return Lease(*this, std::move(scratch));
  }

 private:
  std::function<std::unique_ptr<Scratch>()> make_;
  std::mutex mutex_;
  std::vector<std::unique_ptr<Scratch>> free_;
};

}  // namespace verdel::internal
