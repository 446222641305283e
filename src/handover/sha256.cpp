#include "handover/sha256.hpp"

#include <fmt/format.h>
#include <nettle/sha2.h>

#include <array>
#include <vector>

#include "inputs/byte_source.hpp"

namespace verdel::internal {

std::string sha256_of_file(const std::string& path, const StopToken& stop) {
  constexpr std::size_t kBlockBytes = std::size_t{1} << 20;
  const ByteSource source = open_regular_file(path);
  sha256_ctx context;
  sha256_init(&context);
  std::vector<unsigned char> block(kBlockBytes);
  std::uint64_t offset = 0;
  while (const std::size_t count = source.read_at(offset, block)) {
    stop.check();
    sha256_update(&context, count, block.data());
    offset += count;
  }
  std::array<unsigned char, SHA256_DIGEST_SIZE> digest{};
  sha256_digest(&context, digest.size(), digest.data());
  return fmt::format("{:02x}", fmt::join(digest, ""));
}

}  // namespace verdel::internal
