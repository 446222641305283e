#include "inputs/audio_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "inputs/audio_container.hpp"
#include "support/audio_files.hpp"
#include "support/errors.hpp"
#include "support/temporary_folder.hpp"

namespace verdel {
namespace {

using testing::chunk_at;
using testing::FileBytes;
using ::testing::HasSubstr;

constexpr std::size_t kFrames = 300;

// The bytes of a two-channel file, its samples those of test_sound.
FileBytes audio_bytes(int format) {
  const testing::TemporaryFolder folder;
  testing::write_audio(folder.path("a"), testing::test_sound(2, kFrames), 48000, format);
  return testing::read_bytes(folder.path("a"));
}

ByteSource memory_source(const FileBytes& bytes) {
  return {bytes.size(), [&bytes](std::uint64_t offset, std::span<unsigned char> into) {
            if (offset >= bytes.size()) return std::size_t{0};
            const std::size_t count =
                std::min<std::size_t>(into.size(), bytes.size() - static_cast<std::size_t>(offset));
            std::memcpy(into.data(), bytes.data() + offset, count);
            return count;
          }};
}

// All samples of a file, interleaved, in reads of an odd size.
std::vector<double> decode(const FileBytes& bytes) {
  AudioFile file(memory_source(bytes), "test");
  std::vector<double> all, block(file.header().channels * 77);
  while (const std::size_t count = file.read(block)) {
    all.insert(all.end(), block.begin(),
               block.begin() + static_cast<std::ptrdiff_t>(count * file.header().channels));
  }
  return all;
}

std::vector<double> expected_samples() {
  const testing::Channels sound = testing::test_sound(2, kFrames);
  std::vector<double> all;
  for (std::size_t i = 0; i < kFrames; ++i) all.insert(all.end(), {sound[0][i], sound[1][i]});
  return all;
}

std::string failure_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const RuntimeError& failure) {
    return failure.what();
  } catch (const OSError& failure) {
    return std::string("OSError: ") + failure.what();
  }
  return "";
}

void set_bytes(FileBytes& bytes, std::size_t offset, std::size_t count, int value) {
  std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(offset), count,
              static_cast<unsigned char>(value));
}

const std::vector<int> kUncompressed = {
    SF_FORMAT_WAV | SF_FORMAT_PCM_16,  SF_FORMAT_WAV | SF_FORMAT_PCM_24,
    SF_FORMAT_WAV | SF_FORMAT_FLOAT,   SF_FORMAT_WAVEX | SF_FORMAT_DOUBLE,
    SF_FORMAT_RF64 | SF_FORMAT_FLOAT,  SF_FORMAT_WAV | SF_FORMAT_PCM_16 | SF_ENDIAN_BIG,
    SF_FORMAT_AIFF | SF_FORMAT_PCM_16, SF_FORMAT_AIFF | SF_FORMAT_PCM_24 | SF_ENDIAN_LITTLE,
    SF_FORMAT_AIFF | SF_FORMAT_FLOAT,  SF_FORMAT_CAF | SF_FORMAT_PCM_24,
    SF_FORMAT_CAF | SF_FORMAT_DOUBLE};
constexpr int kFlac = SF_FORMAT_FLAC | SF_FORMAT_PCM_24;

TEST(AudioFile, ReadsEveryFormatExactly) {
  std::vector<int> formats = kUncompressed;
  formats.insert(formats.end(), {kFlac, SF_FORMAT_CAF | SF_FORMAT_ALAC_24});
  for (const int format : formats) {
    SCOPED_TRACE(format);
    FileBytes bytes = audio_bytes(format);
    EXPECT_EQ(decode(bytes), expected_samples());
    const AudioFile file(memory_source(bytes), "test");
    EXPECT_EQ(file.header(), (AudioHeader{48000, 2, kFrames}));
    const bool is_uncompressed = format != formats.back() && format != kFlac;
    EXPECT_EQ(file.length_is_verified(), is_uncompressed);
    EXPECT_TRUE(AudioFile(memory_source(bytes), "test").last_frame_is_there());

    // Tags may stand before and behind the audio.
    FileBytes tagged(10 + 130 + bytes.size());  // a length of 1 * 128 + 2
    std::memcpy(tagged.data(), "ID3\x04\0\0\0\0\x01\x02", 10);
    std::memcpy(tagged.data() + 140, bytes.data(), bytes.size());
    EXPECT_EQ(decode(tagged), expected_samples());
    for (const char letter : {'T', 'A', 'G'}) bytes.push_back(static_cast<unsigned char>(letter));
    EXPECT_EQ(decode(bytes), expected_samples());
  }
}

TEST(AudioFile, RefusesEveryTruncation) {
  std::vector<int> formats = kUncompressed;
  formats.insert(formats.end(),
                 {SF_FORMAT_AIFF | SF_FORMAT_ULAW, SF_FORMAT_WAV | SF_FORMAT_IMA_ADPCM});
  for (const int format : formats) {
    const FileBytes whole = audio_bytes(format);
    for (std::size_t length = 0; length < whole.size(); length += length < 90 ? 1 : 61) {
      const FileBytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
      EXPECT_THROW(AudioFile(memory_source(cut), "test"), RuntimeError)
          << format << " cut to " << length;
    }
  }
  const FileBytes flac = audio_bytes(kFlac);
  for (std::size_t length = 0; length < flac.size(); length += length < 90 ? 1 : 61) {
    const FileBytes cut(flac.begin(), flac.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_THROW(decode(cut), RuntimeError) << length;
    try {
      EXPECT_FALSE(AudioFile(memory_source(cut), "test").last_frame_is_there()) << length;
    } catch (const RuntimeError&) {  // not even a header
      EXPECT_LT(length, 90u);
    }
  }
}

TEST(AudioFile, SaysHowMuchIsMissing) {
  FileBytes wav = audio_bytes(SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  wav.erase(wav.end() - 200, wav.end());
  EXPECT_EQ(failure_of([&] { decode(wav); }),
            "“test” is cut short: its header promises 1200 bytes of audio, but only 1000 are "
            "there. Copy or bounce it again.");
  FileBytes caf = audio_bytes(SF_FORMAT_CAF | SF_FORMAT_FLOAT);
  caf.pop_back();
  EXPECT_THAT(failure_of([&] { decode(caf); }), HasSubstr("2400 bytes of audio, but only 2399"));
  FileBytes ulaw = audio_bytes(SF_FORMAT_AIFF | SF_FORMAT_ULAW);
  ulaw.pop_back();
  EXPECT_THAT(failure_of([&] { decode(ulaw); }), HasSubstr("600 bytes of audio, but only 599"));
  FileBytes aiff = audio_bytes(SF_FORMAT_AIFF | SF_FORMAT_PCM_16);
  aiff[chunk_at(aiff, "COMM") + 13] = 0xFF;  // more frames than the sound chunk has
  EXPECT_THAT(failure_of([&] { decode(aiff); }), HasSubstr("is cut short"));
  FileBytes flac = audio_bytes(kFlac);
  flac[flac.size() - 20] ^= 0x55;
  EXPECT_THAT(failure_of([&] { decode(flac); }),
              HasSubstr("“test” is damaged or cut short: decoding stopped after"));
  EXPECT_EQ(failure_of([] { decode({}); }), "“test” is empty.");
  EXPECT_EQ(failure_of([] {
              decode({'O', 'g', 'g', 'S', 0, 0, 0, 0, 0, 0, 0, 0});
            }),
            "“test” is not a WAV, AIFF, FLAC or CAF file.");
}

// Writers that cannot go back leave sizes at 0 or all ones: the audio reaches to the file's end.
TEST(AudioFile, ReadsStreamsWithOpenSizes) {
  for (const int open : {0x00, 0xFF}) {
    SCOPED_TRACE(open);
    for (const int endian : {SF_ENDIAN_FILE, SF_ENDIAN_BIG}) {
      FileBytes wav = audio_bytes(SF_FORMAT_WAV | SF_FORMAT_PCM_16 | endian);
      set_bytes(wav, chunk_at(wav, "data") + 4, 4, open);
      for (const int riff : {0x00, 0xFF}) {
        set_bytes(wav, 4, 4, riff);
        EXPECT_EQ(decode(wav), expected_samples());
      }
    }
    FileBytes rf64 = audio_bytes(SF_FORMAT_RF64 | SF_FORMAT_PCM_24);
    set_bytes(rf64, chunk_at(rf64, "ds64") + 8, 24, open);
    EXPECT_EQ(decode(rf64), expected_samples());

    FileBytes aiff = audio_bytes(SF_FORMAT_AIFF | SF_FORMAT_PCM_16);
    set_bytes(aiff, 4, 4, open);
    set_bytes(aiff, chunk_at(aiff, "COMM") + 10, 4, open);
    set_bytes(aiff, chunk_at(aiff, "SSND") + 4, 4, open);
    EXPECT_EQ(decode(aiff), expected_samples());
    set_bytes(aiff, chunk_at(aiff, "SSND") + 4, 4, 0);
    aiff[chunk_at(aiff, "SSND") + 7] = 8;  // only the two numbers before the audio
    EXPECT_EQ(decode(aiff), expected_samples());

    FileBytes caf = audio_bytes(SF_FORMAT_CAF | SF_FORMAT_PCM_16);
    set_bytes(caf, chunk_at(caf, "data") + 4, 8, open);
    EXPECT_EQ(decode(caf), expected_samples());
  }
  // A writer that died: the container ends where the audio begins.
  FileBytes wav = audio_bytes(SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  set_bytes(wav, 4, 4, 0);
  set_bytes(wav, 40, 4, 0);
  wav[4] = 36;
  EXPECT_EQ(decode(wav), expected_samples());
  // A container that covers what follows an empty sound: there is no audio.
  wav[4] = static_cast<unsigned char>((wav.size() - 8) & 0xFF);
  wav[5] = static_cast<unsigned char>((wav.size() - 8) >> 8);
  EXPECT_TRUE(decode(wav).empty());
}

TEST(AudioFile, KnowsThe64BitWavByBothNames) {
  FileBytes bw64 = audio_bytes(SF_FORMAT_RF64 | SF_FORMAT_FLOAT);
  std::memcpy(bw64.data(), "BW64", 4);
  EXPECT_EQ(decode(bw64), expected_samples());
  bw64.pop_back();
  EXPECT_THROW(decode(bw64), RuntimeError);
}

TEST(AudioFile, LeavesTheLengthOfAFlacStreamOpen) {
  FileBytes flac = audio_bytes(kFlac);
  flac[21] &= 0xF0;  // STREAMINFO's 36 bits of frame count
  set_bytes(flac, 22, 4, 0);
  const AudioFile file(memory_source(flac), "test");
  EXPECT_EQ(file.header(), (AudioHeader{48000, 2, std::nullopt}));
  EXPECT_EQ(decode(flac), expected_samples());
  flac.pop_back();
  EXPECT_THROW(decode(flac), RuntimeError);
}

TEST(AudioFile, StepsOverChunksOfOddSize) {
  FileBytes wav = audio_bytes(SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  const FileBytes odd = {'n', 'o', 't', 'e', 3, 0, 0, 0, 'a', 'b', 'c', 0};
  wav.insert(wav.begin() + 12, odd.begin(), odd.end());
  EXPECT_EQ(decode(wav), expected_samples());
}

// A stream in a container with 32-bit sizes can outgrow what a decoder can be told.
TEST(AudioFile, RefusesAStreamThatItCannotReadWhole) {
  FileBytes wav = audio_bytes(SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  set_bytes(wav, chunk_at(wav, "data") + 4, 4, 0xFF);
  const ByteSource head = memory_source(wav);
  const ByteSource endless{
      std::uint64_t{5} << 30, [&](std::uint64_t offset, std::span<unsigned char> into) {
        std::fill(into.begin() + static_cast<std::ptrdiff_t>(head.read_at(offset, into)),
                  into.end(), static_cast<unsigned char>(0));
        return into.size();
      }};
  EXPECT_THAT(failure_of([&] { AudioFile(endless, "test"); }),
              HasSubstr("“test” cannot be read whole"));
}

// Every byte of every header, bent: the file is read or refused, and what is read is not more than
// its bytes can hold.
TEST(AudioFile, SurvivesBentHeaders) {
  for (const int format : kUncompressed) {
    const FileBytes whole = audio_bytes(format);
    for (std::size_t place = 0; place < std::min<std::size_t>(whole.size(), 160); ++place) {
      for (const int value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
        FileBytes bent = whole;
        bent[place] = static_cast<unsigned char>(value);
        const std::string failure =
            failure_of([&] { EXPECT_LE(decode(bent).size(), 2 * bent.size()); });
        EXPECT_THAT(failure, ::testing::AnyOf("", HasSubstr("“test”")));
      }
    }
  }
}

TEST(AudioContainer, WalksHostileChunksInBoundedTime) {
  // Nothing but empty chunks, and sizes that point behind the end or wrap.
  FileBytes empty = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'};
  empty.resize(12 + 8 * 200000);
  std::size_t reads = 0;
  ByteSource counted = memory_source(empty);
  counted.read_at = [&reads, inner = counted.read_at](std::uint64_t offset,
                                                      std::span<unsigned char> into) {
    ++reads;
    return inner(offset, into);
  };
  EXPECT_THROW(read_audio_container(counted, "test"), RuntimeError);
  EXPECT_LT(reads, 100000u);

  FileBytes caf = audio_bytes(SF_FORMAT_CAF | SF_FORMAT_PCM_16);
  set_bytes(caf, chunk_at(caf, "desc") + 4, 8, 0xFF);
  EXPECT_THROW(decode(caf), RuntimeError);
  set_bytes(caf, chunk_at(caf, "desc") + 4, 1, 0x7F);
  EXPECT_THROW(decode(caf), RuntimeError);
}

TEST(AudioFile, OpensOnlyRegularFilesAndNeverWaits) {
  const testing::TemporaryFolder folder;
  folder.touch("folder.wav/");
  ASSERT_EQ(::mkfifo(folder.path("pipe.wav").c_str(), 0600), 0);
  const int server = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string socket_path = folder.path("socket.wav");
  ASSERT_LT(socket_path.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, socket_path.c_str(), socket_path.size());
  ASSERT_EQ(::bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::close(server);

  const auto failure = [](const std::string& path) {
    return failure_of([&] { const AudioFile file(path); });
  };
  EXPECT_EQ(failure(folder.path("folder.wav")),
            "“" + folder.path("folder.wav") + "” is a folder, not an audio file.");
  EXPECT_THAT(failure(folder.path("pipe.wav")), HasSubstr("pipe.wav” is a pipe"));
  EXPECT_THAT(failure(socket_path), HasSubstr("socket.wav” is a socket"));
  EXPECT_THAT(failure("/dev/null"), HasSubstr("“/dev/null” is a device"));
  EXPECT_EQ(failure("no/such\xE9.wav"),
            "OSError: cannot open “no/such\\xE9.wav”: No such file or directory");
  testing::write_audio(folder.path("really.flac.mp3"), testing::test_sound(1, 10));
  EXPECT_EQ(AudioFile(folder.path("really.flac.mp3")).header().frames, 10u);
}

TEST(AudioFile, PassesAFailureOfTheSystemOn) {
  const FileBytes bytes = audio_bytes(SF_FORMAT_WAV | SF_FORMAT_PCM_16);
  bool broken = false;
  ByteSource source = memory_source(bytes);
  source.read_at = [&broken, inner = source.read_at](std::uint64_t offset,
                                                     std::span<unsigned char> into) {
    if (broken) throw OSError("cannot read “test”", EIO);
    return inner(offset, into);
  };
  AudioFile file(source, "test");
  broken = true;
  std::vector<double> block(20);
  EXPECT_THROW(file.read(block), OSError);
}

}  // namespace
}  // namespace verdel
