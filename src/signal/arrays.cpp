#include "signal/arrays.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace verdel {

void prefer_large_pages([[maybe_unused]] void* data, [[maybe_unused]] std::size_t bytes) {
#if defined(MADV_HUGEPAGE)
  constexpr std::size_t kWorthwhile = 4U << 20;
  if (bytes < kWorthwhile) return;
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const auto begin = (reinterpret_cast<std::uintptr_t>(data) + page - 1) / page * page;
  const auto end = (reinterpret_cast<std::uintptr_t>(data) + bytes) / page * page;
  madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#endif
}

StemViews views_of(const StemMap& stems) {
  StemViews views;
  views.reserve(stems.size());
  for (const auto& stem : stems) views.push_back({stem.name, stem.audio.view()});
  return views;
}

StemViews column_range(const StemViews& stems, std::size_t first, std::size_t stop) {
  StemViews views;
  views.reserve(stems.size());
  for (const auto& stem : stems) {
    views.push_back({stem.name, stem.audio.column_range(first, stop)});
  }
  return views;
}

}  // namespace verdel
