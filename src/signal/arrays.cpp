#include "signal/arrays.hpp"

namespace verdel::internal {

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

}  // namespace verdel::internal
