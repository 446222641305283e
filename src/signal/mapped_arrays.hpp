#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "support/descriptor.hpp"

namespace verdel::internal {

/// A float32 array in a file, all zero at first, paged by the operating system instead of filling
/// working memory. Rows are written from several threads at once without a lock.
///
/// The file loses its name as soon as it is created, so that a killed process leaves no space in
/// use, and its space is reserved before it is mapped, so that a full volume is an OSError here
/// and never a bus error later.
class MappedArray {
 public:
  /// `rows` rows of `columns` values in the new file `path`.
  MappedArray(const std::string& path, std::size_t rows, std::size_t columns);
  ~MappedArray();
  MappedArray(const MappedArray&) = delete;
  MappedArray& operator=(const MappedArray&) = delete;

  std::size_t rows() const { return rows_; }
  std::span<float> row(std::size_t index) { return {data_ + index * columns_, columns_}; }
  std::span<const float> row(std::size_t index) const {
    return {data_ + index * columns_, columns_};
  }

  /// Fetches the pages of a row that is about to be written in one go, where the system can: a
  /// third of the price of fetching them one by one at their first touch.
  void fetch_row(std::size_t index);

  /// Starts to write changed pages back, where the system can do that without waiting for the disk.
  void flush();

 private:
  std::size_t bytes() const { return rows_ * columns_ * sizeof(float); }

  std::size_t rows_, columns_;
  Descriptor file_;
  float* data_ = nullptr;
};

}  // namespace verdel::internal
