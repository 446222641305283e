#include "measures.hpp"

#include <sys/resource.h>
#include <time.h>

#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <algorithm>
#include <chrono>
#include <cmath>
#include <complex>
#include <cstddef>
#include <fstream>
#include <string>
#include <vector>

#include "signal/arrays.hpp"
#include "signal/transforms.hpp"

namespace verdel::internal {
namespace {

double seconds_of(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

void raise(std::atomic<std::uint64_t>& peak, std::uint64_t value) {
  std::uint64_t seen = peak.load();
  while (value > seen && !peak.compare_exchange_weak(seen, value)) {
  }
}

}  // namespace

Moment Moment::now() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return {seconds_of(CLOCK_MONOTONIC), seconds_of(CLOCK_PROCESS_CPUTIME_ID),
          static_cast<double>(usage.ru_stime.tv_sec) +
              1e-6 * static_cast<double>(usage.ru_stime.tv_usec)};
}

double thread_seconds() {
  return seconds_of(CLOCK_THREAD_CPUTIME_ID);
}

std::uint64_t anonymous_memory() {
#ifdef __linux__
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word != "RssAnon:") continue;
    std::uint64_t kilobytes = 0;
    status >> kilobytes;
    return kilobytes * 1024;
  }
#endif
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
#ifdef __APPLE__
  return static_cast<std::uint64_t>(usage.ru_maxrss);
#else
  return static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
#endif
}

const char* memory_kind() {
#ifdef __linux__
  return "anonymous memory (RssAnon), mapped files aside";
#else
  return "resident memory since the start of the run";
#endif
}

void release_freed_memory() {
#ifdef __GLIBC__
  malloc_trim(0);
#endif
}

MemoryWatch::MemoryWatch()
    : thread_([this] {
        while (!done_) {
          raise(peak_, anonymous_memory());
          std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
      }) {}

MemoryWatch::~MemoryWatch() {
  done_ = true;
  thread_.join();
}

std::uint64_t MemoryWatch::take_peak() {
  const std::uint64_t now = anonymous_memory();
  return std::max(now, peak_.exchange(now));
}

double nine_bare_transforms() {
  const RealTransform<double> transform(2048);
  auto time = Array2D<double>::uninitialised(1, transform.length());
  auto result = Array2D<double>::uninitialised(1, transform.length());
  auto spectrum = Array2D<std::complex<double>>::uninitialised(1, transform.bins());
  for (std::size_t i = 0; i < time.size(); ++i) {
    time.row(0)[i] = std::sin(1e-3 * static_cast<double>(i * i));
  }
  constexpr std::size_t kBatches = 101, kTurns = 100;
  std::vector<double> seconds;
  for (std::size_t batch = 0; batch < kBatches; ++batch) {
    const double begin = Moment::now().cpu;
    for (std::size_t turn = 0; turn < kTurns; ++turn) {
      // An inverse destroys its spectrum; the next turn's forward transforms make a new one.
      for (int i = 0; i < 6; ++i) transform.forward(time.data(), spectrum.data());
      for (int i = 0; i < 3; ++i) transform.inverse(spectrum.data(), result.data());
    }
    seconds.push_back((Moment::now().cpu - begin) / kTurns);
  }
  const auto median = seconds.begin() + kBatches / 2;
  std::nth_element(seconds.begin(), median, seconds.end());
  return *median;
}

}  // namespace verdel::internal
