#include "inputs/audio_container.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <string_view>

#include "inputs/alac_packets.hpp"
#include "inputs/chunk_bytes.hpp"
#include "support/errors.hpp"
#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::uint64_t kOnes32 = 0xFFFFFFFF;
constexpr std::uint64_t kOnes64 = std::numeric_limits<std::uint64_t>::max();
// Far above what any writer makes; a file of nothing but empty chunks ends here.
constexpr int kMostChunks = 65536;
constexpr int kMostTags = 16;

BytePatch number_patch(std::uint64_t offset, std::size_t count, std::uint64_t value, Order order) {
  BytePatch patch{offset, {}, count};
  for (std::size_t i = 0; i < count; ++i) {
    patch.bytes[order == Order::little ? i : count - 1 - i] =
        static_cast<unsigned char>(value >> (8 * i));
  }
  return patch;
}

constexpr std::array<std::uint64_t, 4> kPlainEncodings = {1, 3, 6, 7};  // PCM, float, A-, mu-law

bool is_plain(std::uint64_t encoding) {
  return std::find(kPlainEncodings.begin(), kPlainEncodings.end(), encoding) !=
         kPlainEncodings.end();
}

// The first half of an encoding's GUID, four bytes and twice two, all of them big-endian.
constexpr std::uint64_t big_guid(std::uint64_t encoding) {
  return encoding << 32 | 0x10;
}

// The encoding in the first half of the GUID that a big-endian file has. Writers disagree: some
// leave all its numbers little-endian, and one turns round the first two bytes alone. 0 if it is
// none of these.
std::uint64_t encoding_in_big_guid(std::uint64_t half) {
  for (const std::uint64_t encoding : kPlainEncodings) {
    if (half == big_guid(encoding) || half == (encoding << 56 | 0x1000) ||
        half == (encoding << 48 | 0x1000)) {
      return encoding;
    }
  }
  return 0;
}

// The walk over one file.
class Walk {
 public:
  Walk(const ByteSource& source, const std::string& path) : source_(source), path_(path) {}

  AudioContainer wav(Order order);
  AudioContainer aiff();
  AudioContainer caf();

 private:
  [[noreturn]] void fail_without_audio() const {
    throw RuntimeError(quoted_path(path_) +
                       " is damaged or cut short: no audio was found in it. Copy or bounce it "
                       "again.");
  }
  // Bytes of audio from `first` to the file's end; the audio must not begin behind that.
  std::uint64_t available(std::uint64_t first) const {
    if (first > source_.size) fail_without_audio();
    return source_.size - first;
  }
  void require_available(std::uint64_t promised, std::uint64_t present) const {
    if (promised <= present) return;
    throw RuntimeError(fmt::format(
        "{} is cut short: its header promises {} of audio, but only {} {} there. Copy "
        "or bounce it again.",
        quoted_path(path_), counted(promised, "byte"), present, present == 1 ? "is" : "are"));
  }
  // The place of the chunk after one of `size` bytes at `body`.
  std::uint64_t behind(std::uint64_t body, std::uint64_t size) const {
    if (size > available(body)) fail_without_audio();
    return body + size;
  }
  // A patch where the decoder would not know the encoding.
  std::optional<BytePatch> require_plain_wav(std::uint64_t format, Order order) const;
  bool holds_chunks(std::uint64_t first, std::uint64_t end, Order order) const;
  bool is_open(std::uint64_t container_size, std::uint64_t ones, std::uint64_t audio_start,
               Order order) const;
  void require_plain_aiff(const Bytes<22>& common, bool is_compressible,
                          std::uint64_t data_bytes) const;
  BytePatch alac_patch(std::uint64_t data, std::uint64_t data_bytes) const;

  const ByteSource& source_;
  const std::string& path_;
};

// Whether the bytes are whole chunks, one behind the other; a last one may lack its pad byte.
bool Walk::holds_chunks(std::uint64_t first, std::uint64_t end, Order order) const {
  const auto is_letter = [](char c) { return c >= ' ' && c <= '~'; };
  for (int chunk = 0; first < end && chunk < kMostChunks; ++chunk) {
    const Bytes<8> heading(source_, first);
    const std::string_view name = heading.text(0, 4);
    const std::uint64_t size = heading.at(4, 4, order);
    if (end - first < 8 || !std::all_of(name.begin(), name.end(), is_letter) ||
        size > end - first - 8) {
      return false;
    }
    first += 8 + size + size % 2;
  }
  return first >= end;
}

// Whether an audio size of 0 was left open by a writer that could not go back: the file goes on,
// and what follows is neither outside of the container nor other chunks in it.
bool Walk::is_open(std::uint64_t container_size, std::uint64_t ones, std::uint64_t audio_start,
                   Order order) const {
  constexpr std::uint64_t kContainerHeader = 8;
  if (audio_start == source_.size) return false;
  if (container_size == 0 || container_size == ones) return true;
  if (container_size <= audio_start - kContainerHeader) return true;
  const std::uint64_t end = std::min(container_size, source_.size - kContainerHeader);
  return !holds_chunks(audio_start, end + kContainerHeader, order);
}

std::optional<BytePatch> Walk::require_plain_wav(std::uint64_t format, Order order) const {
  constexpr std::uint64_t kExtensible = 0xFFFE;  // the encoding stands in a GUID
  constexpr std::uint64_t kGuid = 24;
  const Bytes<kGuid + 8> bytes(source_, format);
  std::uint64_t encoding = bytes.at(0, 2, order);
  if (encoding == kExtensible && order == Order::big) {
    encoding = encoding_in_big_guid(bytes.at(kGuid, 8, order));
    if (is_plain(encoding)) return number_patch(format + kGuid, 8, big_guid(encoding), order);
  } else if (encoding == kExtensible) {
    encoding = bytes.at(kGuid, 2, order);
  }
  if (!is_plain(encoding)) fail_audio_encoding(path_);
  return std::nullopt;
}

AudioContainer Walk::wav(Order order) {
  const Bytes<12> head(source_, 0);
  const bool has_64_bits = head.text(0, 4) == "RF64" || head.text(0, 4) == "BW64";
  std::uint64_t container_size = head.at(4, 4, order), ones = kOnes32;
  std::optional<std::uint64_t> long_size;
  std::uint64_t long_size_offset = 0;
  AudioContainer found;
  if (head.text(0, 4) == "BW64") {
    // The same layout under a name that decoders know.
    found.patches.push_back({0, {'R', 'F', '6', '4'}, 4});
  }

  std::uint64_t position = 12;
  for (int chunk = 0; chunk < kMostChunks; ++chunk) {
    const Bytes<8> heading(source_, position);
    if (!heading.complete) break;
    const std::uint64_t size = heading.at(4, 4, order), body = position + 8;
    if (heading.text(0, 4) == "ds64" && has_64_bits) {
      const Bytes<16> sizes(source_, body);
      container_size = sizes.at(0, 8, order);
      long_size = sizes.at(8, 8, order);
      long_size_offset = body + 8;
      ones = kOnes64;
    }
    if (heading.text(0, 4) == "fmt ") {
      if (const auto patch = require_plain_wav(body, order)) found.patches.push_back(*patch);
    }
    if (heading.text(0, 4) != "data") {
      position = behind(body, size + size % 2);
      continue;
    }

    const std::uint64_t present = available(body);
    const bool is_long = long_size && (size == kOnes32 || size == 0);
    const std::uint64_t promised = is_long ? *long_size : size;
    const bool open = promised == (is_long ? kOnes64 : kOnes32) ||
                      (promised == 0 && is_open(container_size, ones, body, order));
    if (!open) require_available(promised, present);
    found.data_bytes = open ? present : promised;
    if (long_size && *long_size != *found.data_bytes) {
      found.patches.push_back(number_patch(long_size_offset, 8, *found.data_bytes, order));
    } else if (!long_size && open) {
      found.patches.push_back(
          number_patch(body - 4, 4, std::min(*found.data_bytes, kOnes32), order));
    }
    return found;
  }
  fail_without_audio();
}

// Holds the frame count of a common chunk against the bytes of its samples.
void Walk::require_plain_aiff(const Bytes<22>& common, bool is_compressible,
                              std::uint64_t data_bytes) const {
  // The last is what a widespread library makes of the one before.
  constexpr std::array<std::string_view, 13> kLinear = {"NONE", "sowt", "twos", "raw ", "fl32",
                                                        "FL32", "fl64", "FL64", "in24", "in32",
                                                        "23ni", "42ni", "42n1"};
  constexpr std::array<std::string_view, 4> kLogarithmic = {"ulaw", "ULAW", "alaw", "ALAW"};
  const auto is_one_of = [&](const auto& names) {
    return std::find(names.begin(), names.end(), common.text(18, 4)) != names.end();
  };
  if (is_compressible && is_one_of(kLogarithmic)) return;  // the sample size is not that on disk
  if (is_compressible && !is_one_of(kLinear)) fail_audio_encoding(path_);
  const std::uint64_t frames = common.at(2, 4, Order::big);
  if (frames == kOnes32) return;
  const std::uint64_t sample_bytes = (common.at(6, 2, Order::big) + 7) / 8;
  require_available(frames * common.at(0, 2, Order::big) * sample_bytes, data_bytes);
}

AudioContainer Walk::aiff() {
  const Bytes<12> head(source_, 0);
  const std::uint64_t container_size = head.at(4, 4, Order::big);
  const bool is_compressible = head.text(8, 4) == "AIFC";
  std::optional<Bytes<22>> common;
  AudioContainer found;

  std::uint64_t position = 12;
  for (int chunk = 0; chunk < kMostChunks && !(common && found.data_bytes); ++chunk) {
    const Bytes<8> heading(source_, position);
    if (!heading.complete) break;
    const std::uint64_t size = heading.at(4, 4, Order::big), body = position + 8;
    const std::uint64_t present = available(body);
    if (heading.text(0, 4) == "COMM") {
      common.emplace(source_, body);
    } else if (heading.text(0, 4) == "SSND" && !found.data_bytes) {
      // Behind the chunk's size stand the place of the first sample and a block size, four bytes
      // each.
      const std::uint64_t before = 8 + Bytes<4>(source_, body).at(0, 4, Order::big);
      if (before > present) fail_without_audio();
      const bool open =
          size == 0 || size == kOnes32 ||
          (size == before && is_open(container_size, kOnes32, body + before, Order::big));
      if (!open && size < before) fail_without_audio();
      if (!open) require_available(size - before, present - before);
      found.data_bytes = open ? present - before : size - before;
      if (open) {
        found.patches.push_back(number_patch(body - 4, 4, std::min(present, kOnes32), Order::big));
        break;
      }
    }
    // A last chunk may lack its pad byte, and one behind the audio may be cut without harm.
    if (found.data_bytes && size + size % 2 > present) break;
    position = behind(body, size + size % 2);
  }
  if (!found.data_bytes) fail_without_audio();
  if (common) require_plain_aiff(*common, is_compressible, *found.data_bytes);
  return found;
}

// Tells the decoder the bit depth, which not every file does.
BytePatch Walk::alac_patch(std::uint64_t data, std::uint64_t data_bytes) const {
  constexpr std::uint64_t kFormatFlags = 32;  // the format is the first chunk
  const auto sound = read_alac_sound(source_, data, data_bytes);
  if (!sound) {
    throw RuntimeError(quoted_path(path_) +
                       " is damaged or cut short: its table of packets makes no sense. Copy or "
                       "bounce it again.");
  }
  if (sound->is_misread) {
    throw RuntimeError(quoted_path(path_) +
                       " holds uncompressed packets of more than 16 bits, which the decoder would "
                       "misread. Bounce it as WAV, AIFF or FLAC.");
  }
  return number_patch(kFormatFlags, 4, sound->depth_flag, Order::big);
}

AudioContainer Walk::caf() {
  constexpr std::array<std::string_view, 4> kEncodings = {"lpcm", "ulaw", "alaw", "alac"};
  std::uint64_t position = 8;
  const Bytes<24> description(source_, position);
  const std::string_view format = description.text(20, 4);
  if (description.text(0, 4) != "desc") fail_without_audio();
  if (std::find(kEncodings.begin(), kEncodings.end(), format) == kEncodings.end())
    fail_audio_encoding(path_);
  for (int chunk = 0; chunk < kMostChunks; ++chunk) {
    const Bytes<12> heading(source_, position);
    if (!heading.complete) break;
    const std::uint64_t size = heading.at(4, 8, Order::big), body = position + 12;
    if (heading.text(0, 4) != "data") {
      position = behind(body, size);
      continue;
    }
    constexpr std::uint64_t kEditCount = 4;
    const std::uint64_t present = available(body);
    const bool open = size == 0 || size == kOnes64;
    if (present < kEditCount || (!open && size < kEditCount)) fail_without_audio();
    if (!open) require_available(size - kEditCount, present - kEditCount);
    AudioContainer found;
    found.data_bytes = (open ? present : size) - kEditCount;
    if (format == "alac") {
      found.patches.push_back(alac_patch(body + kEditCount, *found.data_bytes));
    }
    if (open) found.patches.push_back(number_patch(body - 8, 8, present, Order::big));
    return found;
  }
  fail_without_audio();
}

// Where the file proper begins, behind ID3 tags: each has a length of four times seven bits.
std::uint64_t end_of_tags(const ByteSource& source) {
  std::uint64_t position = 0;
  for (int tag = 0; tag < kMostTags; ++tag) {
    const Bytes<10> head(source, position);
    if (!head.complete || head.text(0, 3) != "ID3") break;
    std::uint64_t length = 0;
    for (std::size_t i = 6; i < 10; ++i) length = length << 7 | (head.bytes[i] & 0x7Fu);
    position += 10 + length;
  }
  return position;
}

}  // namespace

void fail_audio_encoding(const std::string& path) {
  throw RuntimeError(quoted_path(path) +
                     " is compressed in a way that VERDEL does not read. Bounce it as PCM or "
                     "floating point.");
}

AudioContainer read_audio_container(const ByteSource& source, const std::string& path) {
  if (source.size == 0) throw RuntimeError(quoted_path(path) + " is empty.");
  const std::uint64_t start = end_of_tags(source);
  const ByteSource inner = source_from(source, start);
  Walk walk(inner, path);
  const Bytes<12> head(inner, 0);
  const std::string_view id = head.text(0, 4), form = head.text(8, 4);
  AudioContainer found;
  if ((id == "RIFF" || id == "RF64" || id == "BW64") && form == "WAVE") {
    found = walk.wav(Order::little);
  } else if (id == "RIFX" && form == "WAVE") {
    found = walk.wav(Order::big);
  } else if (id == "FORM" && (form == "AIFF" || form == "AIFC")) {
    found = walk.aiff();
  } else if (id == "caff") {
    found = walk.caf();
  } else if (id != "fLaC") {
    throw RuntimeError(quoted_path(path) + " is not a WAV, AIFF, FLAC or CAF file.");
  }
  found.start = start;
  return found;
}

}  // namespace verdel::internal
