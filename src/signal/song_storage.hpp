#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "signal/arrays.hpp"

namespace verdel::internal {

/// Where arrays as long as a song stand: in working memory up to a budget, and beyond it in files
/// that the system pages, so that a song may be larger than the machine's memory. Copies share one
/// budget; arrays may be made and dropped on any thread. Which array stands where changes no bit.
class SongStorage {
 public:
  /// Everything in working memory.
  SongStorage() = default;
  /// `memory` bytes in working memory; what is more in files of `folder`. Such a file has no name
  /// any more when the array is handed out, so that a killed process leaves nothing, and its space
  /// is reserved, so that a full volume is an OSError here and never a bus error later.
  SongStorage(std::uint64_t memory, const std::string& folder);

  /// Errors: std::bad_alloc; OSError if a file cannot be made.
  template <class Value>
  Array2D<Value> uninitialised(std::size_t rows, std::size_t columns) const {
    if (!budget_ || rows * columns == 0) return Array2D<Value>::uninitialised(rows, columns);
    if (rows > static_cast<std::size_t>(-1) / sizeof(Value) / columns) {
      throw std::bad_array_new_length();
    }
    std::shared_ptr<void> bytes = take(rows * columns * sizeof(Value));
    auto* const values = static_cast<Value*>(bytes.get());
    return Array2D<Value>::on(std::move(bytes), values, rows, columns);
  }
  template <class Value>
  Array2D<Value> zeros(std::size_t rows, std::size_t columns) const {
    auto array = uninitialised<Value>(rows, columns);
    if (!array.empty()) {
      std::memset(static_cast<void*>(array.data()), 0, array.size() * sizeof(Value));
    }
    return array;
  }

 private:
  struct Budget;

  std::shared_ptr<void> take(std::size_t bytes) const;

  std::shared_ptr<Budget> budget_;
};

}  // namespace verdel::internal
