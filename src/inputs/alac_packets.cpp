#include "inputs/alac_packets.hpp"

#include <algorithm>
#include <array>
#include <bit>
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

// What the file's format, or the codec's own description, says of the sound.
struct Sound {
  std::uint64_t sr = 0, packet_frames = 0, channels = 0;
  bool operator==(const Sound&) const = default;
};

struct Description {
  Sound sound;
  std::uint64_t depth = 0;  // in bits
};

// The codec's description, behind the atoms that older writers wrap around it.
Description read_description(const ByteSource& source, const Chunk& chunk) {
  const Bytes<48> bytes(source, chunk.body);
  std::size_t first = 0;
  for (const std::string_view atom : {"frma", "alac"}) {
    if (bytes.text(first + 4, 4) == atom) first += 12;
  }
  if (first + 24 > chunk.size) return {};
  return {.sound = {.sr = bytes.at(first + 20, 4, Order::big),
                    .packet_frames = bytes.at(first, 4, Order::big),
                    .channels = bytes.at(first + 9, 1, Order::big)},
          .depth = bytes.at(first + 5, 1, Order::big)};
}

// The sample rate, which a format has as a floating-point number; 0 if it is not a whole one.
std::uint64_t whole_rate(const Bytes<32>& format) {
  const auto rate = std::bit_cast<double>(format.at(0, 8, Order::big));
  constexpr double kMost = std::numeric_limits<std::int32_t>::max();
  if (!(rate >= 1.0 && rate <= kMost)) return 0;
  const auto whole = static_cast<std::uint64_t>(rate);
  return static_cast<double>(whole) == rate ? whole : 0;
}

// The flags that stand for the depth; nothing if there are none or they stand for another one.
std::optional<std::uint64_t> depth_flag(std::uint64_t flags, const Sound& format,
                                        const Description& description) {
  constexpr std::array<std::uint64_t, 5> kDepths = {0, 16, 20, 24, 32};  // by the format's flags
  const auto known = std::find(kDepths.begin() + 1, kDepths.end(), description.depth);
  if (known == kDepths.end()) return std::nullopt;
  const auto flag = static_cast<std::uint64_t>(known - kDepths.begin());
  const bool is_left_open = flags == 0 && format == description.sound;
  return flags == flag || is_left_open ? std::optional(flag) : std::nullopt;
}

struct Packets {
  std::uint64_t count = 0, bytes = 0, largest = 0;
  bool any_uncompressed = false;
};

// Whether a packet begins with samples as they are: behind 19 bits of what it begins with stand
// four, the last of which tells.
bool is_uncompressed(const ByteSource& source, std::uint64_t packet) {
  return (Bytes<3>(source, packet).bytes[2] & 0x02u) != 0;
}

// The sizes in a table, seven bits a byte, the last byte of each without its high bit. Nothing if
// one is longer than four bytes or is cut off. A size of 0 ends the table; what follows is padding.
std::optional<Packets> read_table(const ByteSource& source, const Chunk& table,
                                  std::uint64_t data) {
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
      packets.any_uncompressed =
          packets.any_uncompressed || is_uncompressed(source, data + packets.bytes);
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

// Whether the packets are what the head of their table announces: their number, that of the frames,
// and that of frames before those.
bool is_sound(const Packets& packets, const Sound& sound, const Bytes<kTableHeader>& announced) {
  // A packet that gains nothing by compression holds the samples as they are, behind some bits for
  // every channel.
  const std::uint64_t most_bytes =
      sound.channels * (sound.packet_frames * sizeof(std::uint32_t) + 16);
  const std::uint64_t valid_frames = announced.at(8, 8, Order::big);
  if (packets.count != announced.at(0, 8, Order::big) || packets.largest > most_bytes ||
      valid_frames > packets.count * sound.packet_frames) {
    return false;
  }
  const std::uint64_t frames = valid_frames + announced.at(16, 4, Order::big);
  return packets.count == 0 || frames > (packets.count - 1) * sound.packet_frames;
}

}  // namespace

std::optional<AlacSound> read_alac_sound(const ByteSource& source, std::uint64_t data,
                                         std::uint64_t data_bytes) {
  const auto format = only_chunk(source, "desc"), description = only_chunk(source, "kuki"),
             table = only_chunk(source, "pakt");
  if (!format || !description || !table || table->size < kTableHeader) return std::nullopt;
  const Bytes<32> bytes(source, format->body);
  const Sound sound{.sr = whole_rate(bytes),
                    .packet_frames = bytes.at(20, 4, Order::big),
                    .channels = bytes.at(24, 4, Order::big)};
  const auto flag =
      depth_flag(bytes.at(12, 4, Order::big), sound, read_description(source, *description));
  if (!flag || sound.packet_frames < 1 || sound.packet_frames > kMostFramesPerPacket ||
      sound.channels < 1 || sound.channels > kMostChannels) {
    return std::nullopt;
  }
  const auto packets = read_table(source, *table, data);
  if (!packets || !is_sound(*packets, sound, Bytes<kTableHeader>(source, table->body)) ||
      packets->bytes > data_bytes) {
    return std::nullopt;
  }
  constexpr std::uint64_t kFlagOf16Bits = 1;
  const bool is_deep_stereo = sound.channels > 1 && *flag > kFlagOf16Bits;
  return AlacSound{*flag, is_deep_stereo && packets->any_uncompressed};
}

}  // namespace verdel::internal
