#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "inputs/byte_source.hpp"

/// Numbers and names at fixed places of a container, for the units that walk one.
namespace verdel::internal {

enum class Order { big, little };

inline std::uint64_t number(std::span<const unsigned char> bytes, Order order) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    value = value << 8 | bytes[order == Order::big ? i : bytes.size() - 1 - i];
  }
  return value;
}

/// The first bytes of something, as many as there are; the others are 0.
template <std::size_t size>
struct Bytes {
  std::array<unsigned char, size> bytes{};
  bool complete = false;

  Bytes(const ByteSource& source, std::uint64_t offset) {
    complete = offset <= source.size && source.read_at(offset, bytes) == size;
  }
  std::uint64_t at(std::size_t first, std::size_t count, Order order) const {
    return number(std::span(bytes).subspan(first, count), order);
  }
  std::string_view text(std::size_t first, std::size_t count) const {
    return {reinterpret_cast<const char*>(bytes.data()) + first, count};
  }
};

}  // namespace verdel::internal
