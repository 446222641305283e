#pragma once

#include <cassert>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/// Dense two-dimensional arrays, [rows][columns], the last index varying fastest. The owner is
/// move-only: nothing large is copied except by a function whose name says so.
namespace verdel::internal {

/// One cache line, and the widest vector register: every array begins on it.
inline constexpr std::size_t kArrayAlignment = 64;

/// Rows of equal length on somebody else's storage; row r begins at data + r * stride.
template <class T>
class RowsView {
 public:
  RowsView() = default;
  RowsView(T* data, std::size_t rows, std::size_t columns, std::size_t stride)
      : data_(data), rows_(rows), columns_(columns), stride_(stride) {}
  /// A view to read is made from a view to write without a word.
  template <class U>
  requires(std::is_same_v<const U, T> && !std::is_same_v<U, T>)
      RowsView(RowsView<U> other)  // NOLINT(google-explicit-constructor)
      : RowsView(other.data(), other.rows(), other.columns(), other.stride()) {}

  T* data() const { return data_; }
  std::size_t rows() const { return rows_; }
  std::size_t columns() const { return columns_; }
  std::size_t stride() const { return stride_; }
  bool empty() const { return rows_ == 0 || columns_ == 0; }

  std::span<T> row(std::size_t index) const {
    assert(index < rows_);
    return {data_ + index * stride_, columns_};
  }
  /// The same rows, columns first .. stop - 1.
  RowsView column_range(std::size_t first, std::size_t stop) const {
    assert(first <= stop && stop <= columns_);
    return {data_ + first, rows_, stop - first, stride_};
  }
  template <class U>
  bool same_shape(const RowsView<U>& other) const {
    return rows_ == other.rows() && columns_ == other.columns();
  }

 private:
  T* data_ = nullptr;
  std::size_t rows_ = 0, columns_ = 0, stride_ = 0;
};

/// Owner of [rows][columns] values without gaps, on aligned memory of its own or on storage that it
/// keeps.
template <class T>
class Array2D {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  Array2D() = default;
  Array2D(Array2D&& other) noexcept { *this = std::move(other); }
  Array2D& operator=(Array2D&& other) noexcept {
    data_ = std::move(other.data_);
    rows_ = std::exchange(other.rows_, 0);
    columns_ = std::exchange(other.columns_, 0);
    return *this;
  }

  static Array2D uninitialised(std::size_t rows, std::size_t columns) {
    Array2D array;
    array.rows_ = rows;
    array.columns_ = columns;
    if (columns != 0 && rows > static_cast<std::size_t>(-1) / sizeof(T) / columns) {
      throw std::bad_array_new_length();
    }
    array.data_.reset(static_cast<T*>(
        ::operator new (rows* columns * sizeof(T), std::align_val_t{kArrayAlignment})));
    return array;
  }
  /// On somebody else's storage, aligned for vectors, which goes with the array.
  static Array2D on(std::shared_ptr<void> storage, T* data, std::size_t rows, std::size_t columns) {
    Array2D array;
    array.data_ = {data, Release{std::move(storage)}};
    array.rows_ = rows;
    array.columns_ = columns;
    return array;
  }
  static Array2D zeros(std::size_t rows, std::size_t columns) {
    Array2D array = uninitialised(rows, columns);
    if (rows * columns != 0) {
      std::memset(static_cast<void*>(array.data()), 0, rows * columns * sizeof(T));
    }
    return array;
  }
  static Array2D copy_of(RowsView<const T> source) {
    Array2D array = uninitialised(source.rows(), source.columns());
    for (std::size_t r = 0; r < source.rows() && source.columns() != 0; ++r) {
      std::memcpy(array.row(r).data(), source.row(r).data(), source.columns() * sizeof(T));
    }
    return array;
  }

  std::size_t rows() const { return rows_; }
  std::size_t columns() const { return columns_; }
  std::size_t size() const { return rows_ * columns_; }
  bool empty() const { return size() == 0; }
  T* data() { return data_.get(); }
  const T* data() const { return data_.get(); }
  std::span<T> flat() { return {data(), size()}; }
  std::span<const T> flat() const { return {data(), size()}; }
  std::span<T> row(std::size_t index) { return view().row(index); }
  std::span<const T> row(std::size_t index) const { return view().row(index); }
  RowsView<T> view() { return {data(), rows_, columns_, columns_}; }
  RowsView<const T> view() const { return {data(), rows_, columns_, columns_}; }

 private:
  struct Release {
    std::shared_ptr<void> storage = {};  // empty: the values stand on memory of their own
    void operator()(T* data) {
      if (storage) {
        storage.reset();
      } else {
        ::operator delete (static_cast<void*>(data), std::align_val_t{kArrayAlignment});
      }
    }
  };
  std::unique_ptr<T, Release> data_;
  std::size_t rows_ = 0, columns_ = 0;
};

/// Samples first .. stop - 1.
struct SampleSpan {
  std::size_t first = 0, stop = 0;
  std::size_t length() const { return stop - first; }
};

/// Audio: one channel per row, full scale at 1.0. A frame of audio is one sample of every channel.
using AudioArray = Array2D<double>;
using AudioView = RowsView<const double>;
/// The same in single precision: taps, and stems as they go to the disk.
using StemArray = Array2D<float>;
using StemView = RowsView<const float>;

/// One entry of a stem map: a stem's name as its file spells it, and its audio.
template <class Audio>
struct NamedStem {
  std::string name;
  Audio audio;
};

/// Stems in stem order, which every stage keeps.
using StemMap = std::vector<NamedStem<StemArray>>;
using StemViews = std::vector<NamedStem<StemView>>;

/// The map's entries as views, names copied.
StemViews views_of(const StemMap& stems);
/// Columns first .. stop - 1 of every entry.
StemViews column_range(const StemViews& stems, std::size_t first, std::size_t stop);

}  // namespace verdel::internal
