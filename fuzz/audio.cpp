#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <string_view>
#include <vector>

#include "fuzz/fuzzing.hpp"
#include "inputs/audio_container.hpp"
#include "inputs/audio_loading.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal::fuzzing {
namespace {

/// More than this is decoded in blocks only: a few bytes of FLAC may stand for much silence.
constexpr std::size_t kMostSamples = std::size_t{1} << 20;

/// A file that is written anew for every input, and the standard output, which is the engine's line
/// protocol and no decoder's business.
class Surroundings {
 public:
  Surroundings() {
    file_ = ::open(path().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    output_ = ::open(folder_.path("output").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    require(file_ >= 0 && output_ >= 0 && ::dup2(output_, STDOUT_FILENO) >= 0, "files of its own");
  }
  std::string path() const { return folder_.path("input"); }

  void write(const std::string& bytes) const {
    require(::ftruncate(file_, 0) == 0 && ::pwrite(file_, bytes.data(), bytes.size(), 0) ==
                                              static_cast<ssize_t>(bytes.size()),
            "the input can be written");
  }
  void require_silence() const {
    std::fflush(stdout);
    struct stat status {};
    require(::fstat(output_, &status) == 0 && status.st_size == 0,
            "decoders print nothing to standard output");
  }

 private:
  testing::TemporaryFolder folder_;
  int file_ = -1, output_ = -1;
};

/// What was read of a file, block by block.
struct Decoded {
  AudioHeader header;
  bool length_is_verified = false;
  std::size_t samples = 0;
  std::vector<double> interleaved = {};  ///< no more than the first kMostSamples

  bool is_kept() const { return samples == interleaved.size(); }
};

Decoded decode(const ByteSource& source) {
  constexpr std::size_t kOddFrames = 257;
  AudioFile file(source, "input");
  Decoded decoded{.header = file.header(), .length_is_verified = file.length_is_verified()};
  std::vector<double> block(kOddFrames * decoded.header.channels);
  while (const std::size_t count = file.read(block)) {
    require(count <= kOddFrames, "a read fills no more than its block");
    const std::size_t samples = count * decoded.header.channels;
    decoded.samples += samples;
    if (decoded.samples <= kMostSamples) {
      decoded.interleaved.insert(decoded.interleaved.end(), block.begin(),
                                 block.begin() + static_cast<std::ptrdiff_t>(samples));
    }
  }
  return decoded;
}

void require_same(const Decoded& decoded, AudioView audio) {
  const std::size_t channels = decoded.header.channels;
  require(audio.rows() == channels && audio.columns() * channels == decoded.samples,
          "a file loads as long as it decodes");
  for (std::size_t i = 0; i < decoded.samples; ++i) {
    const double loaded = audio.row(i % channels)[i / channels];
    require(std::bit_cast<std::uint64_t>(loaded) ==
                std::bit_cast<std::uint64_t>(decoded.interleaved[i]),
            "a file loads the samples that it decodes");
  }
}

/// Frames that were promised are frames that come, and every byte of audio is part of one.
void require_complete(const Decoded& decoded, const ByteSource& source) {
  const AudioHeader& header = decoded.header;
  require(header.sr >= 1 && header.channels >= 1, "a rate and channels");
  if (header.frames) {
    require(decoded.samples == *header.frames * header.channels, "the promised frames");
  }
  const auto bytes = read_audio_container(source, "input").data_bytes;
  require(!bytes || *bytes <= source.size, "audio is within the file");
  if (!decoded.length_is_verified) return;
  constexpr std::array<std::size_t, 5> kSampleBytes = {1, 2, 3, 4, 8};
  require(std::any_of(kSampleBytes.begin(), kSampleBytes.end(),
                      [&](std::size_t size) {
                        return *bytes / (size * header.channels) == *header.frames;
                      }),
          "every byte of audio is part of a sample");
}

/// Reads the bytes as the engine reads a tap: the pass over the headers, then all of the audio; and
/// as one side of a pair if it is mono.
void read_as_tap(const std::string& bytes) {
  static const Surroundings surroundings;
  const ByteSource memory{bytes.size(),
                          [&bytes](std::uint64_t offset, std::span<unsigned char> into) {
                            if (offset >= bytes.size()) return std::size_t{0};
                            const std::size_t first = static_cast<std::size_t>(offset);
                            const std::size_t count = std::min(into.size(), bytes.size() - first);
                            std::memcpy(into.data(), bytes.data() + first, count);
                            return count;
                          }};
  surroundings.write(bytes);
  const StemInput tap{"tap", {surroundings.path()}}, pair{"pair", {tap.files[0], tap.files[0]}};

  const auto decoded = attempt([&] { return decode(memory); });
  const auto checked = attempt([&] { return check_audio_input(tap); });
  if (decoded) {
    require_complete(*decoded, memory);
    require(checked == decoded->header, "what can be decoded passes the look at its header");
  }
  // Loading takes the same road again with larger buffers: some inputs are enough for it.
  constexpr std::size_t kOneInSo = 8;
  if (bytes.size() % kOneInSo == 0 && (!decoded || decoded->is_kept())) {
    const auto loaded = attempt([&] { return load_audio_input(tap); });
    require(loaded.has_value() == decoded.has_value(), "a file loads if it decodes");
    if (loaded) require_same(*decoded, loaded->audio.view());
    if (loaded && decoded->header.channels == 1) {
      const LoadedAudio both = load_audio_input(pair);
      require(both.audio.rows() == 2 && both.audio.columns() == decoded->samples, "a pair");
    }
  }
  surroundings.require_silence();
}

// What an audio file begins with, and the form that stands at byte 8.
struct Beginning {
  std::string_view id;
  std::vector<std::string_view> forms;
};

// Gives the bytes a format's beginning where they have none, chosen by the first of them, so that
// few inputs are spent on being told that they are no audio.
std::string with_beginning(std::string bytes) {
  constexpr std::size_t kIdBytes = 4, kFormOffset = 8;
  static const std::vector<Beginning> known = {
      {"RIFF", {"WAVE"}},         {"RIFX", {"WAVE"}}, {"RF64", {"WAVE"}}, {"BW64", {"WAVE"}},
      {"FORM", {"AIFF", "AIFC"}}, {"caff", {}},       {"fLaC", {}}};
  if (bytes.size() < kIdBytes || bytes.starts_with("ID3")) return bytes;
  auto beginning = std::ranges::find_if(
      known, [&](const Beginning& each) { return bytes.starts_with(each.id); });
  if (beginning == known.end()) {
    const auto choice = static_cast<unsigned char>(bytes.front()) % known.size();
    beginning = known.begin() + static_cast<std::ptrdiff_t>(choice);
    bytes.replace(0, kIdBytes, beginning->id);
  }
  if (beginning->forms.empty() || bytes.size() < kFormOffset + kIdBytes) return bytes;
  const std::string_view there = std::string_view(bytes).substr(kFormOffset, kIdBytes);
  if (std::ranges::find(beginning->forms, there) == beginning->forms.end()) {
    bytes.replace(kFormOffset, kIdBytes, beginning->forms.front());
  }
  return bytes;
}

}  // namespace
}  // namespace verdel::internal::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace verdel::internal::fuzzing;
  read_as_tap(with_beginning(text_of(data, size)));
  return 0;
}
