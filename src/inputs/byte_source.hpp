#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

namespace verdel::internal {

/// Bytes that can be read at any place. Copies share what stands behind them.
struct ByteSource {
  std::uint64_t size = 0;
  /// Fills `into` from `offset` on and returns how many bytes there were; fewer than asked for only
  /// at the end. Throws OSError where the system fails.
  std::function<std::size_t(std::uint64_t offset, std::span<unsigned char> into)> read_at;
};

/// A regular file, open as long as a copy of the source lives. Never waits: a folder, pipe, socket
/// or device is refused with a RuntimeError, what cannot be opened with an OSError; both name the
/// file.
ByteSource open_regular_file(const std::string& path);

/// The source without its first bytes.
ByteSource source_from(ByteSource source, std::uint64_t first);

}  // namespace verdel::internal
