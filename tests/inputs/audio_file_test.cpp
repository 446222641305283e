#include "inputs/audio_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "inputs/audio_container.hpp"
#include "support/audio_files.hpp"
#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

using testing::chunk_at;
using testing::failure_of;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr std::size_t kFrames = 300;

// The bytes of a two-channel file, its samples those of test_sound.
std::string audio_bytes(int format) {
  const testing::TemporaryFolder folder;
  testing::write_audio(folder.path("a"), testing::test_sound(2, kFrames), 48000, format);
  return testing::bytes_of(folder.path("a"));
}

ByteSource memory_source(const std::string& bytes) {
  return {bytes.size(), [&bytes](std::uint64_t offset, std::span<unsigned char> into) {
            if (offset >= bytes.size()) return std::size_t{0};
            const std::size_t count =
                std::min<std::size_t>(into.size(), bytes.size() - static_cast<std::size_t>(offset));
            std::memcpy(into.data(), bytes.data() + offset, count);
            return count;
          }};
}

// All samples of a file, interleaved, in reads of an odd size.
std::vector<double> decode(const std::string& bytes) {
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

// The bytes with some of them, counted from a chunk's name, set to one value.
std::string with(std::string bytes, std::size_t place, std::size_t count, int value) {
  return bytes.replace(place, count, count, static_cast<char>(value));
}

std::string with(const std::string& bytes, const char* chunk, std::size_t offset, std::size_t count,
                 int value) {
  return with(bytes, chunk_at(bytes, chunk) + offset, count, value);
}

const std::vector<int> kUncompressed = {
    SF_FORMAT_WAV | SF_FORMAT_PCM_16,  SF_FORMAT_WAV | SF_FORMAT_PCM_24,
    SF_FORMAT_WAV | SF_FORMAT_FLOAT,   SF_FORMAT_WAVEX | SF_FORMAT_DOUBLE,
    SF_FORMAT_RF64 | SF_FORMAT_FLOAT,  SF_FORMAT_WAV | SF_FORMAT_PCM_16 | SF_ENDIAN_BIG,
    SF_FORMAT_AIFF | SF_FORMAT_PCM_16, SF_FORMAT_AIFF | SF_FORMAT_PCM_24 | SF_ENDIAN_LITTLE,
    SF_FORMAT_AIFF | SF_FORMAT_FLOAT,  SF_FORMAT_CAF | SF_FORMAT_PCM_24,
    SF_FORMAT_CAF | SF_FORMAT_DOUBLE};
constexpr int kFlac = SF_FORMAT_FLAC | SF_FORMAT_PCM_24;
constexpr int kWav = SF_FORMAT_WAV | SF_FORMAT_PCM_16;

std::vector<int> uncompressed_and(std::initializer_list<int> others) {
  std::vector<int> formats = kUncompressed;
  formats.insert(formats.end(), others);
  return formats;
}

TEST(AudioFile, ReadsEveryFormatExactly) {
  for (const int format : uncompressed_and({kFlac, SF_FORMAT_CAF | SF_FORMAT_ALAC_24})) {
    SCOPED_TRACE(format);
    const std::string bytes = audio_bytes(format);
    EXPECT_EQ(decode(bytes), expected_samples());
    AudioFile file(memory_source(bytes), "test");
    EXPECT_EQ(file.header(), (AudioHeader{48000, 2, kFrames}));
    EXPECT_EQ(file.length_is_verified(), std::ranges::count(kUncompressed, format) == 1);
    EXPECT_TRUE(file.last_frame_is_there());

    // Tags may stand before and behind the audio.
    const std::string tag("ID3\x04\0\0\0\0\x01\x02", 10);  // a length of 1 * 128 + 2
    EXPECT_EQ(decode(tag + std::string(130, '\0') + bytes), expected_samples());
    EXPECT_EQ(decode(bytes + "TAG"), expected_samples());
  }
}

TEST(AudioFile, RefusesEveryTruncation) {
  for (const int format : uncompressed_and(
           {SF_FORMAT_AIFF | SF_FORMAT_ULAW, SF_FORMAT_CAF | SF_FORMAT_ALAC_16, kFlac})) {
    const std::string whole = audio_bytes(format);
    for (std::size_t length = 0; length < whole.size(); length += length < 90 ? 1 : 61) {
      const std::string cut = whole.substr(0, length);
      const std::string failure = failure_of<RuntimeError>([&] {
        EXPECT_FALSE(AudioFile(memory_source(cut), "test").last_frame_is_there()) << length;
      });
      // A FLAC file's header tells nothing of how many bytes follow.
      if (format != kFlac || length >= 90) {
        EXPECT_EQ(failure.empty(), format == kFlac) << format << " cut to " << length;
      }
      EXPECT_THROW(decode(cut), RuntimeError) << format << " cut to " << length;
    }
  }
}

TEST(AudioFile, SaysWhatIsWrong) {
  const std::string flac = audio_bytes(kFlac), wav = audio_bytes(kWav);
  const auto cut = [](int format) {
    std::string bytes = audio_bytes(format);
    bytes.pop_back();
    return bytes;
  };
  const auto missing = [](int promised, int there) {
    return "“test” is cut short: its header promises " + std::to_string(promised) +
           " bytes of audio, but only " + std::to_string(there) +
           " are there. Copy or bounce it again.";
  };
  const std::pair<std::string, std::string> kCases[] = {
      {wav.substr(0, wav.size() - 200), missing(1200, 1000)},
      {cut(SF_FORMAT_CAF | SF_FORMAT_FLOAT), missing(2400, 2399)},
      {cut(SF_FORMAT_AIFF | SF_FORMAT_ULAW), missing(600, 599)},
      // More frames than the sound chunk has.
      {with(audio_bytes(SF_FORMAT_AIFF | SF_FORMAT_PCM_16), "COMM", 13, 1, 0xFF),
       "“test” is cut short: "},
      {with(flac, flac.size() - 20, 1, ~flac[flac.size() - 20]),
       "“test” is damaged or cut short: decoding stopped after"},
      {"", "“test” is empty."},
      {"OggS" + std::string(8, '\0'), "“test” is not a WAV, AIFF, FLAC or CAF file."}};
  for (const auto& [bytes, message] : kCases) {
    EXPECT_THAT(failure_of<RuntimeError>([&, &sound = bytes] { decode(sound); }),
                StartsWith(message));
  }
}

// Decoders of rare codecs are the least tried, and one ends the process by assertions; complaints
// of ALAC's go to standard output, which carries the run's lines.
TEST(AudioFile, KeepsBytesFromDecodersThatCannotBearThem) {
  for (const int format :
       {SF_FORMAT_WAV | SF_FORMAT_GSM610, SF_FORMAT_WAV | SF_FORMAT_IMA_ADPCM | SF_ENDIAN_BIG,
        SF_FORMAT_AIFF | SF_FORMAT_DWVW_16}) {
    const std::string bytes = [&] {
      const testing::TemporaryFolder folder;
      testing::write_audio(folder.path("a"), testing::test_sound(1, kFrames), 8000, format);
      return testing::bytes_of(folder.path("a"));
    }();
    EXPECT_THAT(failure_of<RuntimeError>([&] { decode(bytes); }),
                StartsWith("“test” is compressed in a way that VERDEL does not read."));
  }

  const std::string alac = audio_bytes(SF_FORMAT_CAF | SF_FORMAT_ALAC_16);
  const std::string table = alac.substr(chunk_at(alac, "pakt"), 12 + 24 + 4);
  const std::pair<std::string, const char*> kCases[] = {
      {with(alac, "pakt", 36, 4, 0xFF), "a size without an end"},
      {with(alac, "pakt", 36, 1, 0x00), "fewer packets than announced"},
      {with(alac, "pakt", 36, 1, 0xFF), "a packet that reaches behind the sound"},
      {with(alac, "pakt", 26, 1, 0x7F), "more frames than the packets hold"},
      {with(alac, "desc", 27, 1, 0x05), "a bit depth that there is not"},
      {with(alac, "desc", 27, 1, 0x03), "two bit depths"},
      {with(alac, "desc", 34, 1, 0x7F), "packets of too many frames"},
      {std::string(alac).insert(chunk_at(alac, "pakt"), table), "two tables"},
      {with(alac, "kuki", 0, 1, 'x'), "no description of the codec"}};
  ::testing::internal::CaptureStdout();
  for (const auto& [bytes, what] : kCases) {
    EXPECT_THAT(failure_of<RuntimeError>([&, &sound = bytes] { decode(sound); }),
                HasSubstr("its table of packets makes no sense"))
        << what;
  }
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");

  // Other writers put the table behind the sound, and no odd byte between the two.
  std::string behind = std::string(alac).erase(chunk_at(alac, "pakt"), table.size());
  behind.pop_back();
  EXPECT_EQ(decode(behind + table), expected_samples());
}

// Writers that cannot go back leave sizes at 0 or all ones: the audio reaches to the file's end.
TEST(AudioFile, ReadsStreamsWithOpenSizes) {
  for (const int open : {0x00, 0xFF}) {
    SCOPED_TRACE(open);
    for (const int endian : {SF_ENDIAN_FILE, SF_ENDIAN_BIG}) {
      const std::string wav = with(audio_bytes(kWav | endian), "data", 4, 4, open);
      EXPECT_EQ(decode(with(wav, 4, 4, 0x00)), expected_samples());
      EXPECT_EQ(decode(with(wav, 4, 4, 0xFF)), expected_samples());
    }
    const std::string rf64 = audio_bytes(SF_FORMAT_RF64 | SF_FORMAT_PCM_24);
    EXPECT_EQ(decode(with(rf64, "ds64", 8, 24, open)), expected_samples());

    std::string aiff = with(audio_bytes(SF_FORMAT_AIFF | SF_FORMAT_PCM_16), 4, 4, open);
    aiff = with(aiff, "COMM", 10, 4, open);
    EXPECT_EQ(decode(with(aiff, "SSND", 4, 4, open)), expected_samples());
    aiff = with(aiff, "SSND", 4, 4, 0);  // only the two numbers before the audio
    EXPECT_EQ(decode(with(aiff, "SSND", 7, 1, 8)), expected_samples());

    const std::string caf = audio_bytes(SF_FORMAT_CAF | SF_FORMAT_PCM_16);
    EXPECT_EQ(decode(with(caf, "data", 4, 8, open)), expected_samples());
  }
  // A writer that died: the container ends where the audio begins.
  std::string wav = with(with(audio_bytes(kWav), 4, 4, 0), 40, 4, 0);
  wav[4] = 36;
  EXPECT_EQ(decode(wav), expected_samples());
  // A container that covers what follows an empty sound: there is no audio.
  wav[4] = static_cast<char>((wav.size() - 8) & 0xFF);
  wav[5] = static_cast<char>((wav.size() - 8) >> 8);
  EXPECT_TRUE(decode(wav).empty());
}

TEST(AudioFile, ReadsWhatOtherWritersMake) {
  const std::string bw64 = audio_bytes(SF_FORMAT_RF64 | SF_FORMAT_FLOAT).replace(0, 4, "BW64");
  EXPECT_EQ(decode(bw64), expected_samples());
  EXPECT_THROW(decode(bw64.substr(0, bw64.size() - 1)), RuntimeError);

  const std::string piped = testing::without_flac_length(audio_bytes(kFlac));
  EXPECT_EQ(AudioFile(memory_source(piped), "test").header(),
            (AudioHeader{48000, 2, std::nullopt}));
  EXPECT_EQ(decode(piped), expected_samples());
  EXPECT_THROW(decode(piped.substr(0, piped.size() - 1)), RuntimeError);

  const std::string odd("note\x03\0\0\0abc\0", 12);  // a chunk of odd size, and its padding
  EXPECT_EQ(decode(audio_bytes(kWav).insert(12, odd)), expected_samples());
}

// A stream in a container with 32-bit sizes can outgrow what a decoder can be told.
TEST(AudioFile, RefusesAStreamThatItCannotReadWhole) {
  const std::string wav = with(audio_bytes(kWav), "data", 4, 4, 0xFF);
  const ByteSource head = memory_source(wav);
  const ByteSource endless{
      std::uint64_t{5} << 30, [&](std::uint64_t offset, std::span<unsigned char> into) {
        std::ranges::fill(into.subspan(head.read_at(offset, into)), std::uint8_t{0});
        return into.size();
      }};
  EXPECT_THAT(failure_of<RuntimeError>([&] { AudioFile(endless, "test"); }),
              HasSubstr("“test” cannot be read whole"));
}

// Every byte of every header, bent: the file is read or refused, and what is read is not more than
// its bytes can hold.
TEST(AudioFile, SurvivesBentHeaders) {
  for (const int format : kUncompressed) {
    const std::string whole = audio_bytes(format);
    for (std::size_t place = 0; place < std::min<std::size_t>(whole.size(), 160); ++place) {
      for (const int value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
        const std::string bent = with(whole, place, 1, value);
        EXPECT_THAT(
            failure_of<RuntimeError>([&] { EXPECT_LE(decode(bent).size(), 2 * bent.size()); }),
            ::testing::AnyOf("", HasSubstr("“test”")));
      }
    }
  }
}

TEST(AudioContainer, WalksHostileChunksInBoundedTime) {
  // Nothing but empty chunks, and sizes that point behind the end or wrap.
  const std::string empty =
      std::string("RIFF\0\0\0\0WAVE", 12) + std::string(std::size_t{8} * 200000, '\0');
  std::size_t reads = 0;
  const ByteSource plain = memory_source(empty);
  const ByteSource counted{plain.size, [&](std::uint64_t offset, std::span<unsigned char> into) {
                             ++reads;
                             return plain.read_at(offset, into);
                           }};
  EXPECT_THROW(read_audio_container(counted, "test"), RuntimeError);
  EXPECT_LT(reads, 100000u);

  const std::string caf = with(audio_bytes(SF_FORMAT_CAF | SF_FORMAT_PCM_16), "desc", 4, 8, 0xFF);
  EXPECT_THROW(decode(caf), RuntimeError);
  EXPECT_THROW(decode(with(caf, "desc", 4, 1, 0x7F)), RuntimeError);
}

TEST(AudioFile, OpensOnlyRegularFilesAndNeverWaits) {
  const testing::TemporaryFolder folder;
  folder.touch("folder.wav/");
  ASSERT_EQ(::mkfifo(folder.path("pipe.wav").c_str(), 0600), 0);
  const int server = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  folder.path("socket.wav").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ::close(server);

  const std::pair<std::string, std::string> kCases[] = {
      {folder.path("folder.wav"), "folder.wav” is a folder, not an audio file."},
      {folder.path("pipe.wav"), "pipe.wav” is a pipe"},
      {folder.path("socket.wav"), "socket.wav” is a socket"},
      {"/dev/null", "“/dev/null” is a device"}};
  for (const auto& [path, message] : kCases) {
    EXPECT_THAT(failure_of<RuntimeError>([&, &file = path] { AudioFile{file}; }),
                HasSubstr(message));
  }
  EXPECT_EQ(failure_of<OSError>([] { AudioFile("no/such\xE9.wav"); }),
            "cannot open “no/such\\xE9.wav”: No such file or directory");
  testing::write_audio(folder.path("really.flac.mp3"), testing::test_sound(1, 10));
  EXPECT_EQ(AudioFile(folder.path("really.flac.mp3")).header().frames, 10u);
}

TEST(AudioFile, PassesAFailureOfTheSystemOn) {
  const std::string bytes = audio_bytes(kWav);
  bool broken = false;
  const ByteSource whole = memory_source(bytes);
  AudioFile file({whole.size,
                  [&](std::uint64_t offset, std::span<unsigned char> into) {
                    if (broken) throw OSError("cannot read “test”", EIO);
                    return whole.read_at(offset, into);
                  }},
                 "test");
  broken = true;
  std::vector<double> block(20);
  EXPECT_THROW(file.read(block), OSError);
}

}  // namespace
}  // namespace verdel::internal
