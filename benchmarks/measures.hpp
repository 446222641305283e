#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

/// What a stage costs: time on the clock, processor time of all threads, memory.
namespace verdel::internal {

/// Seconds since some moment, of the clock on the wall and of all the process's threads together.
struct Moment {
  double wall = 0.0;
  double cpu = 0.0;
  double system = 0.0;  ///< of cpu: in the system, for files and for memory touched the first time

  static Moment now();
  Moment operator-(const Moment& earlier) const {
    return {wall - earlier.wall, cpu - earlier.cpu, system - earlier.system};
  }
  Moment& operator+=(const Moment& other) {
    wall += other.wall;
    cpu += other.cpu;
    system += other.system;
    return *this;
  }
};

/// Processor seconds of the calling thread.
double thread_seconds();

/// Watches the process's anonymous memory from a thread of its own. Where the system does not tell
/// anonymous memory apart (anywhere but Linux), the highest resident size of the whole run.
class MemoryWatch {
 public:
  MemoryWatch();
  ~MemoryWatch();
  MemoryWatch(const MemoryWatch&) = delete;
  MemoryWatch& operator=(const MemoryWatch&) = delete;

  /// The highest value in bytes since the last call; begins anew.
  std::uint64_t take_peak();

 private:
  std::atomic<std::uint64_t> peak_{0};
  std::atomic<bool> done_{false};
  std::thread thread_;
};

/// Bytes at this moment, and what they are; see MemoryWatch.
std::uint64_t anonymous_memory();
const char* memory_kind();
/// Gives back to the system what the allocator keeps of freed memory, where it can, so that a
/// difference of two moments is what was taken between them.
void release_freed_memory();

/// Processor seconds of nine bare transforms of one 2048-sample frame, six forward and three
/// inverse: what the allocator's definition makes for a frame and stem, and the unit in which it is
/// measured.
double nine_bare_transforms();

}  // namespace verdel::internal
