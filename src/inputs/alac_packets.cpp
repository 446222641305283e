#include "inputs/alac_packets.hpp"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <string_view>
#include <vector>

#include "inputs/chunk_bytes.hpp"

namespace verdel::internal {
namespace {

constexpr std::uint64_t kFileHeader = 8, kChunkHeader = 12, kTableHeader = 24;
constexpr int kMostChunks = 65536;
constexpr std::uint64_t kMostFramesPerPacket = 4096, kMostChannels = 8;

struct Chunk {
  std::uint64_t body = 0, size = 0;
};

// The one chunk of a name; nothing if there is none, or more than one.
std::optional<Chunk> only_chunk(const ByteSource& source, std::string_view name) {
  std::optional<Chunk> found;
  std::uint64_t position = kFileHeader;
  for (int chunk = 0; chunk < kMostChunks; ++chunk) {
    const Bytes<kChunkHeader> heading(source, position);
    if (!heading.complete) break;
    const std::uint64_t size = heading.at(4, 8, Order::big), body = position + kChunkHeader;
    if (heading.text(0, 4) == name) {
      if (found || size > source.size - body) return std::nullopt;
      found = Chunk{body, size};
    }
    if (size > source.size - body) break;  // sound that reaches to the file's end
    position = body + size;
  }
  return found;
}

// The bit depth in the codec's description, behind the atoms that older writers wrap around it.
std::uint64_t described_depth(const ByteSource& source, const Chunk& description) {
  const Bytes<48> bytes(source, description.body);
  std::size_t first = 0;
  for (const std::string_view atom : {"frma", "alac"}) {
    if (bytes.text(first + 4, 4) == atom) first += 12;
  }
  return first + 24 <= description.size ? bytes.at(first + 5, 1, Order::big) : 0;
}

struct Packets {
  std::uint64_t count = 0, bytes = 0, largest = 0;
};

// The sizes in a table, seven bits a byte, the last byte of each without its high bit. Nothing if
// one is longer than four bytes or is cut off. A size of 0 ends the table; what follows is padding.
std::optional<Packets> read_table(const ByteSource& source, const Chunk& table) {
  constexpr int kMostDigits = 4;
  constexpr std::uint64_t kBlock = 4096;
  Packets packets;
  std::vector<unsigned char> block(kBlock);
  std::uint64_t size = 0;
  int digits = 0;
  for (std::uint64_t position = kTableHeader; position < table.size;) {
    const auto wanted = static_cast<std::size_t>(std::min(kBlock, table.size - position));
    if (source.read_at(table.body + position, std::span(block).first(wanted)) != wanted) {
      return std::nullopt;
    }
    position += wanted;
    for (const unsigned char byte : std::span(block).first(wanted)) {
      size = size << 7 | (byte & 0x7Fu);
      if (++digits > kMostDigits) return std::nullopt;
      if ((byte & 0x80u) != 0) continue;
      if (size == 0) return packets;
      packets.count += 1;
      packets.bytes += size;
      packets.largest = std::max(packets.largest, size);
      size = 0;
      digits = 0;
    }
  }
  if (digits != 0) return std::nullopt;
  return packets;
}

}  // namespace

bool alac_packets_are_sound(const ByteSource& source, std::uint64_t data_bytes) {
  constexpr std::array<std::uint64_t, 5> kDepths = {0, 16, 20, 24, 32};  // by the format's flags
  const auto format = only_chunk(source, "desc"), description = only_chunk(source, "kuki"),
             table = only_chunk(source, "pakt");
  if (!format || !description || !table || table->size < kTableHeader) return false;
  const Bytes<32> sound(source, format->body);
  const std::uint64_t flags = sound.at(12, 4, Order::big);
  const std::uint64_t packet_frames = sound.at(20, 4, Order::big);
  const std::uint64_t channels = sound.at(24, 4, Order::big);
  if (flags < 1 || flags >= kDepths.size() || packet_frames < 1 ||
      packet_frames > kMostFramesPerPacket || channels < 1 || channels > kMostChannels ||
      described_depth(source, *description) != kDepths[flags]) {
    return false;
  }
  const auto packets = read_table(source, *table);
  // A packet that gains nothing by compression holds the samples as they are, behind some bits for
  // every channel.
  const std::uint64_t most_bytes = channels * (packet_frames * sizeof(std::uint32_t) + 16);
  // The table begins with the number of packets, of frames, and of frames before those.
  const Bytes<kTableHeader> announced(source, table->body);
  const std::uint64_t announced_frames = announced.at(8, 8, Order::big);
  if (!packets || packets->count != announced.at(0, 8, Order::big) ||
      packets->largest > most_bytes || packets->bytes > data_bytes ||
      announced_frames > packets->count * packet_frames) {
    return false;
  }
  const std::uint64_t frames = announced_frames + announced.at(16, 4, Order::big);
  return packets->count == 0 || frames > (packets->count - 1) * packet_frames;
}

}  // namespace verdel::internal
