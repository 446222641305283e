#include "inputs/audio_file.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "inputs/audio_loading.hpp"
#include "support/audio_files.hpp"
#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

using testing::chunk_at;
using testing::failure_of;
using ::testing::HasSubstr;
using testing::test_sound;

constexpr std::size_t kFrames = 300;
constexpr int kWav = SF_FORMAT_WAV | SF_FORMAT_PCM_16, kRifx = kWav | SF_ENDIAN_BIG;
constexpr int kAiff = SF_FORMAT_AIFF | SF_FORMAT_PCM_16, kCaf = SF_FORMAT_CAF | SF_FORMAT_PCM_16;
constexpr int kAlac = SF_FORMAT_CAF | SF_FORMAT_ALAC_16, kDeep = SF_FORMAT_CAF | SF_FORMAT_ALAC_24;
constexpr int kRf64 = SF_FORMAT_RF64 | SF_FORMAT_FLOAT, kFlac = SF_FORMAT_FLAC | SF_FORMAT_PCM_24;

// The bytes of a file whose samples are the first of test_sound.
std::string audio_bytes(int format, std::size_t frames = kFrames, std::size_t channels = 2) {
  const testing::TemporaryFolder folder;
  testing::write_audio(folder.path("a"), test_sound(channels, frames), 48000, format);
  return testing::bytes_of(folder.path("a"));
}

// Some bytes, counted from a chunk's name, or from the file's beginning where there is no name.
struct Bend {
  const char* chunk;
  std::size_t offset, count;
  int value;
};

std::string bent(std::string bytes, const std::vector<Bend>& bends) {
  for (const auto& [chunk, offset, count, value] : bends) {
    bytes.replace(chunk_at(bytes, chunk) + offset, count, count, static_cast<char>(value));
  }
  return bytes;
}

// The container's size made right; for files of less than 64 KiB.
std::string right_size(const std::string& wav) {
  const std::size_t size = wav.size() - 8;
  return bent(wav, {{"", 4, 1, static_cast<int>(size)}, {"", 5, 1, static_cast<int>(size >> 8)}});
}

// A big-endian WAV with an extensible format, of whose GUID this is the first half.
std::string big_extensible(const std::string& guid) {
  std::string bytes = audio_bytes(SF_FORMAT_WAV | SF_FORMAT_PCM_24 | SF_ENDIAN_BIG);
  bytes = bent(bytes, {{"fmt ", 7, 1, 40}, {"fmt ", 8, 1, 0xFF}, {"fmt ", 9, 1, 0xFE}});
  return bytes.insert(36, std::string("\0\x16\0\x18\0\0\0\x03", 8) + guid +
                              std::string("\x80\0\0\xAA\0\x38\x9B\x71", 8));
}

class AudioFileTest : public ::testing::Test {
 protected:
  testing::Channels decode(const std::string& bytes) {
    testing::write_bytes(path, bytes);
    return testing::rows_of(load(path).audio);
  }

  testing::TemporaryFolder folder;
  std::string path = folder.path("test");
};

TEST_F(AudioFileTest, ReadsEveryFormatWholeOrNotAtAll) {
  const std::string tag("ID3\x04\0\0\0\0\x01\x02", 10);  // a length of 1 * 128 + 2
  for (const int format :
       {kWav, kRifx, kRf64, kAiff, kCaf, kFlac, kDeep, SF_FORMAT_WAV | SF_FORMAT_PCM_24,
        SF_FORMAT_WAVEX | SF_FORMAT_DOUBLE, SF_FORMAT_AIFF | SF_FORMAT_FLOAT,
        SF_FORMAT_AIFF | SF_FORMAT_PCM_24 | SF_ENDIAN_LITTLE, SF_FORMAT_CAF | SF_FORMAT_DOUBLE}) {
    SCOPED_TRACE(format);
    const bool is_flac = format == kFlac;
    const std::string whole = audio_bytes(format);
    // Tags may stand before and behind the audio.
    EXPECT_EQ(decode(tag + std::string(130, '\0') + whole + "TAG"), test_sound(2, kFrames));
    EXPECT_EQ(decode(whole), test_sound(2, kFrames));
    AudioFile file(path);
    EXPECT_EQ(file.header(), (AudioHeader{48000, 2, kFrames}));
    EXPECT_EQ(file.length_is_verified(), !is_flac && format != kDeep);
    EXPECT_TRUE(file.last_frame_is_there());
    for (std::size_t length = 0; length < whole.size(); length += length < 90 ? 1 : 61) {
      EXPECT_THROW(decode(whole.substr(0, length)), RuntimeError) << length;
      // The header of FLAC alone does not tell of the end, and a look there does.
      failure_of<RuntimeError>([&] {
        AudioFile opened(path);
        EXPECT_TRUE(is_flac && !opened.last_frame_is_there()) << length;
      });
    }
  }
}

// What becomes of some bytes: so many frames of test_sound, or a refusal in these words.
struct Case {
  std::string bytes, refusal = "";
  std::size_t frames = kFrames;
};

std::vector<Case> damaged_files() {
  const std::string wav = audio_bytes(kWav), flac = audio_bytes(kFlac);
  const auto cut = [](int format) {
    const std::string bytes = audio_bytes(format);
    return bytes.substr(0, bytes.size() - 1);
  };
  std::vector<Case> cases = {
      {wav.substr(0, wav.size() - 200),
       "test” is cut short: its header promises 1200 bytes of "
       "audio, but only 1000 are there. Copy or bounce it again."},
      {wav.substr(0, 45), "its header promises 1200 bytes of audio, but only 1 is there."},
      {cut(SF_FORMAT_CAF | SF_FORMAT_FLOAT), "2400 bytes of audio, but only 2399 are"},
      {cut(SF_FORMAT_AIFF | SF_FORMAT_ULAW), "600 bytes of audio, but only 599 are"},
      {cut(kRf64).replace(0, 4, "BW64"), "test” is cut short"},
      {bent(audio_bytes(kAiff), {{"COMM", 13, 1, 0xFF}}), "test” is cut short: "},
      {bent(flac, {{"", flac.size() - 20, 1, ~flac[flac.size() - 20]}}),
       "test” is damaged or cut short: decoding stopped after 0 of 300 frames ("},
      {testing::without_flac_length(cut(kFlac)), "test” is damaged or cut short"},
      {"", "test” is empty."},
      {"OggS" + std::string(8, '\0'), "test” is not a WAV, AIFF, FLAC or CAF file."},
      // Sizes that wrap, and that point behind the end.
      {bent(audio_bytes(kCaf), {{"desc", 4, 8, 0xFF}}), "no audio was found"},
      {bent(audio_bytes(kCaf), {{"desc", 4, 1, 0x7F}}), "no audio was found"}};
  // Decoders of rare codecs are the least tried, and one ends the process by assertions.
  const std::string refused = "test” is compressed in a way that VERDEL does not read.";
  for (const int rare :
       {SF_FORMAT_WAV | SF_FORMAT_GSM610, SF_FORMAT_WAV | SF_FORMAT_IMA_ADPCM | SF_ENDIAN_BIG,
        SF_FORMAT_AIFF | SF_FORMAT_DWVW_16}) {
    cases.push_back({audio_bytes(rare, kFrames, 1), refused});
  }
  cases.push_back({big_extensible(std::string("\0\0\0\x02\0\0\0\x10", 8)), refused});
  return cases;
}

// Complaints of the ALAC decoder go to standard output, which carries the run's lines.
std::vector<Case> alac_files() {
  const std::string alac = audio_bytes(kAlac), table = alac.substr(chunk_at(alac, "pakt"), 40);
  std::string behind = std::string(alac).erase(chunk_at(alac, "pakt"), table.size());
  behind.pop_back();  // other writers leave no odd byte before the table
  constexpr Bend kOpenDepth{"desc", 27, 1, 0};
  const std::string damaged = "its table of packets makes no sense";
  std::vector<Case> cases = {{behind + table},
                             {bent(alac, {kOpenDepth})},
                             {bent(audio_bytes(kDeep), {kOpenDepth})},
                             {audio_bytes(kAlac, 1), "", 1},  // too short to be compressed
                             {audio_bytes(kDeep, 1), "uncompressed packets of more than 16 bits"},
                             {std::string(alac).insert(chunk_at(alac, "pakt"), table), damaged}};
  // Packets without an end, too few, beyond the sound, too short for the frames; depths that there
  // are not and that differ; too many frames in a packet; no description.
  for (const Bend& bend : {Bend{"pakt", 36, 4, 0xFF},
                           {"pakt", 36, 1, 0},
                           {"pakt", 36, 1, 0xFF},
                           {"pakt", 26, 1, 0x7F},
                           {"desc", 27, 1, 5},
                           {"desc", 27, 1, 3},
                           {"desc", 34, 1, 0x7F},
                           {"kuki", 0, 1, 'x'}}) {
    cases.push_back({bent(alac, {bend}), damaged});
  }
  // Nothing but the depth may be left open: not the depth of the codec, its packets, channels,
  // rate.
  for (const std::size_t place : {5u, 2u, 9u, 23u}) {
    cases.push_back({bent(alac, {kOpenDepth, {"kuki", 12 + place, 1, 1}}), damaged});
  }
  return cases;
}

// Writers that cannot go back leave sizes at 0 or all ones: the audio reaches to the file's end.
std::vector<Case> open_files(int value) {
  const Bend data{"data", 4, 4, value};
  const std::string wav = bent(audio_bytes(kWav), {data}), rifx = bent(audio_bytes(kRifx), {data});
  const std::string aiff = bent(audio_bytes(kAiff), {{"", 4, 4, value}, {"COMM", 10, 4, value}});
  return {{wav},  // in a container that is right, open, and ends where the audio begins
          {bent(wav, {{"", 4, 4, 0x00}})},
          {bent(wav, {{"", 4, 4, 0xFF}})},
          {bent(wav, {{"", 4, 4, 0x00}, {"", 4, 1, 36}})},
          {rifx},
          {bent(rifx, {{"", 4, 4, 0x00}})},
          {bent(audio_bytes(kRf64), {{"ds64", 8, 24, value}})},
          {bent(aiff, {{"SSND", 4, 4, value}})},
          {bent(aiff, {{"SSND", 4, 4, 0}, {"SSND", 7, 1, 8}})},  // two numbers before the audio
          {bent(audio_bytes(kCaf), {{"data", 4, 8, value}})}};
}

std::vector<Case> files_of_other_writers() {
  const std::string wav = audio_bytes(kWav), aiff = audio_bytes(kAiff);
  const std::string odd("note\x03\0\0\0abc\0", 12);  // a chunk of odd size, and its padding
  const std::string empty = bent(wav, {{"data", 4, 4, 0}}).substr(0, 44);
  const std::size_t sound = chunk_at(aiff, "SSND");
  const auto short_aiff = bent(aiff, {{"SSND", 4, 4, 0}, {"SSND", 7, 1, 8}}).substr(0, sound + 16);
  return {{audio_bytes(kRf64).replace(0, 4, "BW64")},
          {testing::without_flac_length(audio_bytes(kFlac))},
          {std::string(wav).insert(12, odd)},
          // A GUID in either order, and half turned.
          {big_extensible(std::string("\0\0\0\x01\0\0\0\x10", 8))},
          {big_extensible(std::string("\x01\0\0\0\0\0\x10\0", 8))},
          {big_extensible(std::string("\0\x01\0\0\0\0\x10\0", 8))},
          // A size of 0 is true where chunks follow; the last may lack its pad byte.
          {right_size(empty + odd + odd.substr(0, 11)), "", 0},
          {short_aiff + std::string("note\0\0\0\2xx", 10), "1200 bytes of audio, but only 0 are"}};
}

TEST_F(AudioFileTest, DecodesOrSaysWhatIsWrong) {
  for (const auto& cases : {damaged_files(), alac_files(), open_files(0x00), open_files(0xFF),
                            files_of_other_writers()}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.refusal + " " + std::to_string(&c - cases.data()));
      ::testing::internal::CaptureStdout();
      testing::Channels samples;
      const auto refusal = failure_of<RuntimeError>([&] { samples = decode(c.bytes); });
      EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
      EXPECT_THAT(refusal, HasSubstr(c.refusal));
      EXPECT_EQ(refusal.empty(), c.refusal.empty()) << refusal;
      EXPECT_EQ(samples, refusal.empty() ? test_sound(2, c.frames) : testing::Channels());
    }
  }
}

// A stream in a container with 32-bit sizes can outgrow what a decoder can be told, and a failure
// of the system passes through the decoder.
TEST_F(AudioFileTest, BearsSourcesOfAllKinds) {
  decode(bent(audio_bytes(kWav), {{"data", 4, 4, 0xFF}}));
  ByteSource source = open_regular_file(path);
  bool is_broken = false;
  const auto read = [&, head = source.read_at](std::uint64_t offset,
                                               std::span<unsigned char> into) {
    if (is_broken) throw OSError("cannot read", EIO);
    std::ranges::fill(into.subspan(head(offset, into)), std::uint8_t{0});
    return into.size();
  };
  AudioFile file({source.size, read}, "test");
  EXPECT_THAT(failure_of<RuntimeError>([&] {
                AudioFile({std::uint64_t{5} << 30, read}, "test");
              }),
              HasSubstr("“test” cannot be read whole"));
  is_broken = true;
  std::vector<double> block(20);
  EXPECT_THROW(file.read(block), OSError);
}

TEST_F(AudioFileTest, OpensOnlyRegularFilesAndNeverWaits) {
  folder.touch("folder.wav/");
  ASSERT_EQ(::mkfifo(folder.path("pipe.wav").c_str(), 0600), 0);
  const std::pair<std::string, std::string> kCases[] = {
      {folder.path("folder.wav"), "folder.wav” is a folder, not an audio file."},
      {folder.path("pipe.wav"), "pipe.wav” is a pipe"},
      {"/dev/null", "“/dev/null” is a device"},
      {"no/such\xE9.wav", "cannot open “no/such\\xE9.wav”: No such file or directory"}};
  for (const auto& [name, message] : kCases) {
    EXPECT_THAT(failure_of<std::runtime_error>([&, &file = name] { AudioFile{file}; }),
                HasSubstr(message));
  }
}

}  // namespace
}  // namespace verdel::internal
