#include "inputs/audio_loading.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <sstream>

#include "support/audio_files.hpp"
#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

using testing::bytes_of;
using testing::failure_of;
using ::testing::HasSubstr;
using testing::lines_of;
using testing::test_sound;

constexpr std::size_t kFrames = 300;

template <class Sample>
testing::Channels rows_of(const Array2D<Sample>& audio) {
  testing::Channels rows;
  for (std::size_t c = 0; c < audio.rows(); ++c) {
    rows.emplace_back(audio.row(c).begin(), audio.row(c).end());
  }
  return rows;
}

std::string audio_bytes(int format, std::size_t frames = kFrames, std::size_t channels = 2) {
  const testing::TemporaryFolder folder;
  testing::write_audio(folder.path("a"), test_sound(channels, frames), 48000, format);
  return bytes_of(folder.path("a"));
}

// Bytes set to a value, "COMM+10*4=0", counted from a chunk's name or, without one, from the
// beginning; or some taken off the end, "-1". V stands for `open`.
std::string edited(std::string bytes, const std::string& edits, int open) {
  std::istringstream words(edits);
  for (std::string word; words >> word;) {
    if (word.front() == '-') {
      bytes.resize(bytes.size() - std::stoul(word.substr(1)));
      continue;
    }
    const std::size_t plus = word.find('+'), times = word.find('*'), equals = word.find('=');
    const std::size_t count = std::stoul(word.substr(times + 1));
    const int value = word.ends_with('V') ? open : std::stoi(word.substr(equals + 1));
    bytes.replace(bytes.find(word.substr(0, plus)) + std::stoul(word.substr(plus + 1)), count,
                  count, static_cast<char>(value));
  }
  return bytes;
}

std::map<std::string, std::string> make_files() {
  std::map<std::string, std::string> files = {
      {"wav", audio_bytes(SF_FORMAT_WAV | SF_FORMAT_PCM_16)},
      {"wavex", audio_bytes(SF_FORMAT_WAVEX | SF_FORMAT_DOUBLE)},
      {"rifx", audio_bytes(SF_FORMAT_WAV | SF_FORMAT_PCM_24 | SF_ENDIAN_BIG)},
      {"rf64", audio_bytes(SF_FORMAT_RF64 | SF_FORMAT_FLOAT)},
      {"aiff", audio_bytes(SF_FORMAT_AIFF | SF_FORMAT_PCM_16)},
      {"sowt", audio_bytes(SF_FORMAT_AIFF | SF_FORMAT_PCM_24 | SF_ENDIAN_LITTLE)},
      {"ulaw", audio_bytes(SF_FORMAT_AIFF | SF_FORMAT_ULAW)},
      {"caf", audio_bytes(SF_FORMAT_CAF | SF_FORMAT_DOUBLE)},
      {"flac", audio_bytes(SF_FORMAT_FLAC | SF_FORMAT_PCM_24)},
      {"alac", audio_bytes(SF_FORMAT_CAF | SF_FORMAT_ALAC_16)},
      {"alac24", audio_bytes(SF_FORMAT_CAF | SF_FORMAT_ALAC_24)},
      {"raw", audio_bytes(SF_FORMAT_CAF | SF_FORMAT_ALAC_16, 1)},  // too short to be compressed
      {"raw24", audio_bytes(SF_FORMAT_CAF | SF_FORMAT_ALAC_24, 1)},
      {"gsm", audio_bytes(SF_FORMAT_WAV | SF_FORMAT_GSM610, kFrames, 1)},
      {"dwvw", audio_bytes(SF_FORMAT_AIFF | SF_FORMAT_DWVW_16, kFrames, 1)}};
  const std::string odd("note\x03\0\0\0abc\0", 12);  // a chunk of odd size, and its padding
  files["note"] = std::string(files["wav"]).insert(12, odd);
  // No audio, and other chunks, of which the last may lack its padding.
  files["notes"] =
      edited(files["wav"], "data+4*4=0 +4*2=0 +4*1=59", 0).substr(0, 44) + odd + odd.substr(0, 11);
  files["short"] = edited(files["aiff"], "SSND+4*4=0 SSND+7*1=8", 0)
                       .replace(files["aiff"].find("SSND") + 16, 8, "note\0\0\4\xA8", 8);
  // An extensible format, whose GUID is at byte 44.
  files["guid"] = edited(files["rifx"], "fmt+7*1=40 fmt+8*1=255 fmt+9*1=254", 0);
  files["guid"].insert(36, std::string("\0\x16\0\x18\0\0\0\x03", 8) + std::string(8, '\0') +
                               std::string("\x80\0\0\xAA\0\x38\x9B\x71", 8));
  const std::string& alac = files["alac"];
  const std::string table = alac.substr(alac.find("pakt"), 40);
  files["tables"] = std::string(alac).insert(alac.find("pakt"), table);
  // Other writers put the table behind the sound, and no odd byte between the two.
  files["behind"] = edited(alac, "-1", 0).erase(alac.find("pakt"), 40) + table;
  return files;
}

const std::string& file(const std::string& name) {
  static const std::map<std::string, std::string> files = make_files();
  return files.at(name);
}

class AudioFileTest : public ::testing::Test {
 protected:
  testing::Channels decode(const std::string& bytes) {
    testing::write_bytes(path, bytes);
    return rows_of(load(path).audio);
  }

  testing::TemporaryFolder folder;
  std::string path = folder.path("test");
};

TEST_F(AudioFileTest, ReadsEveryFormatWholeOrNotAtAll) {
  const std::atomic<bool> stopped = true;
  const std::string tag("ID3\x04\0\0\0\0\x01\x02", 10);  // a length of 1 * 128 + 2
  for (const std::string format :
       {"wav", "wavex", "rifx", "rf64", "aiff", "sowt", "caf", "flac", "alac", "alac24"}) {
    SCOPED_TRACE(format);
    const bool is_flac = format == "flac";
    const std::string& whole = file(format);
    // Tags may stand before and behind the audio.
    EXPECT_EQ(decode(tag + std::string(130, '\0') + whole + "TAG"), test_sound(2, kFrames));
    EXPECT_EQ(decode(whole), test_sound(2, kFrames));
    AudioFile opened(path);
    EXPECT_EQ(opened.header(), (AudioHeader{48000, 2, kFrames}));
    EXPECT_EQ(opened.length_is_verified(), !is_flac && !format.starts_with("alac"));
    EXPECT_TRUE(opened.last_frame_is_there());
    EXPECT_THROW(load(path, StopToken(stopped)), Cancelled);
    for (std::size_t length = 0; length < whole.size(); length += length < 90 ? 1 : 61) {
      EXPECT_THROW(decode(whole.substr(0, length)), RuntimeError) << length;
      // The header of FLAC alone does not tell of the end, and a look there does.
      failure_of<RuntimeError>([&] {
        AudioFile cut(path);
        EXPECT_TRUE(is_flac && !cut.last_frame_is_there()) << length;
      });
    }
  }
}

// The rows of tests/data/inputs/audio_files.txt. Complaints of decoders go to standard output,
// which carries the run's lines.
TEST_F(AudioFileTest, DecodesOrSaysWhatIsWrong) {
  std::size_t rows = 0;
  for (const std::string& row : testing::cases_of(VERDEL_TEST_DATA "/inputs/audio_files.txt")) {
    if (row.empty() || row.front() == '#') continue;
    ++rows;
    const std::string name = row.substr(0, row.find(' ')),
                      outcome = row.substr(row.rfind("| ") + 2);
    const std::string edits = row.substr(10, row.rfind('|') - 10);
    const bool is_read = outcome.find_first_not_of("0123456789") == outcome.npos;
    for (const int open : {0x00, 0xFF}) {
      SCOPED_TRACE(row);
      ::testing::internal::CaptureStdout();
      testing::Channels sound;
      const auto refusal =
          failure_of<RuntimeError>([&] { sound = decode(edited(file(name), edits, open)); });
      EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
      EXPECT_THAT(refusal, HasSubstr(is_read ? "" : outcome));
      EXPECT_EQ(sound, is_read ? test_sound(2, std::stoul(outcome)) : testing::Channels())
          << refusal;
    }
  }
  EXPECT_GT(rows, 50u);
}

// A stream in a container with 32-bit sizes can outgrow what a decoder can be told, and a failure
// of the system passes through the decoder.
TEST_F(AudioFileTest, BearsSourcesOfAllKinds) {
  decode(edited(file("wav"), "data+4*4=255", 0));
  const ByteSource source = open_regular_file(path);
  bool is_broken = false;
  const auto read = [&](std::uint64_t offset, std::span<unsigned char> into) {
    if (is_broken) throw OSError("cannot read", EIO);
    std::ranges::fill(into.subspan(source.read_at(offset, into)), std::uint8_t{0});
    return into.size();
  };
  EXPECT_THAT(failure_of<RuntimeError>([&] {
                AudioFile({std::uint64_t{5} << 30, read}, "test");
              }),
              HasSubstr("“test” cannot be read whole"));
  AudioFile opened({source.size, read}, "test");
  is_broken = true;
  std::vector<double> block(20);
  EXPECT_THROW(opened.read(block), OSError);
}

TEST_F(AudioFileTest, OpensOnlyRegularFilesAndNeverWaits) {
  folder.touch("folder.wav/");
  ASSERT_EQ(::mkfifo(folder.path("pipe.wav").c_str(), 0600), 0);
  const std::pair<std::string, std::string> kOthers[] = {
      {folder.path("folder.wav"), "folder.wav” is a folder, not an audio file."},
      {folder.path("pipe.wav"), "pipe.wav” is a pipe"},
      {"/dev/null", "“/dev/null” is a device"},
      {"no/such\xE9.wav", "cannot open “no/such\\xE9.wav”: No such file or directory"}};
  for (const auto& [name, message] : kOthers) {
    EXPECT_THAT(failure_of<std::runtime_error>([&, &other = name] { AudioFile{other}; }),
                HasSubstr(message));
  }
}

// A mono or stereo file of a taps folder. Its name tells what is done to it: "open" takes the
// length out of a FLAC's header, "ruined" harms the middle, "cut" takes the last byte.
struct Tap {
  std::string name;
  std::size_t frames = 70000, channels = 2;
  int sr = 1000;
};

// Taps in stem order for a stereo mix of seventy seconds at 1000 Hz, and what comes of them, by the
// strict rules where no lines are expected.
struct Folder {
  std::vector<Tap> taps;
  std::string failure = "", lines = "";
  bool any_channels = false;
};

class LoadStems : public ::testing::Test {
 protected:
  void write(const Tap& tap) {
    const std::string path = folder.path(tap.name);
    testing::write_audio(path, test_sound(tap.channels, tap.frames), tap.sr,
                         tap.name.ends_with("flac") ? SF_FORMAT_FLAC | SF_FORMAT_PCM_16
                                                    : SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    std::string bytes = bytes_of(path);
    if (tap.name.find("open") != tap.name.npos) bytes = edited(bytes, "+22*4=0", 0);
    if (tap.name.find("ruined") != tap.name.npos) bytes.replace(bytes.size() / 2, 40, 40, '\0');
    if (tap.name.find("cut") != tap.name.npos) bytes.pop_back();
    testing::write_bytes(path, bytes);
  }
  std::string load_all(const std::function<void()>& at_first_line = {}) {
    lines.clear();
    sound.clear();
    return failure_of<std::runtime_error>([&] {
      plan = plan_stem_inputs(folder.path());
      const StemMap stems = load_stem_inputs(plan, loading, [&](auto line) {
        lines.append(line).append("\n");
        if (at_first_line && std::ranges::count(lines, '\n') == 1) at_first_line();
      });
      for (const auto& stem : stems) std::ranges::copy(rows_of(stem.audio), back_inserter(sound));
    });
  }

  testing::TemporaryFolder folder;
  StemLoading loading{.mix_sr = 1000, .mix_channels = 2, .mix_frames = 70000};
  std::vector<StemInput> plan;
  std::string lines;
  testing::Channels sound;
};

const std::string kLength =
    " has a different length from the mix. Bounce every stem over the exact same range as the mix.";
const Folder kFolders[] = {
    {{}, "no tap files found"},
    // A length that only decoding tells draws its warning in stem order too.
    {{{"A.wav", 69998},
      {"b.wav", 90000},
      {"c open.flac", 500},
      {"d.L.flac", 69997, 1},
      {"d.R.wav", 69997, 1}},
     "",
     "  ! b length 90.00s vs mix 70.00s - LENGTH MISMATCH\n"
     "  ! c open length 0.50s vs mix 70.00s - LENGTH MISMATCH\n"
     "  ! d length 70.00s vs mix 70.00s - LENGTH MISMATCH\n"},
    {{{"a open.flac", 500}, {"b.wav", 69000}, {"z\x7F.wav", 9, 1, 500}},
     "z\\x7F: 500 Hz but mix is 1000 Hz",
     "  ! b length 69.00s vs mix 70.00s - LENGTH MISMATCH\n"},
    {{{"a.wav", 69998}, {"b.wav", 70002}}},
    {{{"a.wav", 69997}}, "a" + kLength},
    {{{"a.wav", 70003}}, "a" + kLength},
    {{{"open.flac", 69900}}, "open" + kLength},
    {{{"a.wav", 9, 1}},
     "a: 1-channel but the mix is 2-channel. Bounce everything as stereo, or provide matching mono "
     ".L and .R files."},
    {{{"a.wav", 70001, 1}}, "", "", true},
    // Every header is seen before anything is decoded, and the end of what is compressed.
    {{{"ruined.flac"}, {"z.wav", 70000, 2, 48000}}, "z: 48000 Hz but mix is 1000 Hz"},
    {{{"ruined.flac"}, {"z cut.wav"}}, "/z cut.wav” is cut short"},
    {{{"ruined.flac"}, {"z cut.flac"}}, "/z cut.flac” is damaged or cut short"},
    {{{"ruined.flac"}, {"z.flac"}}, "/ruined.flac” is damaged or cut short"},
    {{{"open.L.flac", 70000, 1}, {"open.R.flac", 70000, 1}}},
    {{{"x.L.wav", 70000, 1}, {"x.R.wav", 70000, 1}}},
    {{{"x.L.wav", 9, 2, 500}, {"x.R.wav"}}, "x.L.wav: 2-channel; each .L/.R side must be mono."},
    {{{"x.L.wav", 9, 1, 500}, {"x.R.wav", 9, 3}}, "x.R.wav: 3-channel; each .L/.R side must be"},
    {{{"x.L.wav", 9, 1, 500}, {"x.R.wav", 8, 1}},
     "x.L.wav and x.R.wav have different sample rates. Bounce both mono sides at the same sample "
     "rate."},
    {{{"x.L.wav", 7, 1}, {"x.R.wav", 8, 1}},
     "x.L.wav and x.R.wav have different lengths. Bounce both mono sides over the exact same "
     "range."},
    {{{"open.L.flac", 70001, 1}, {"open.R.flac", 70000, 1}},
     "open.L.flac and open.R.flac have differ"},
};

TEST_F(LoadStems, FitToTheMixOrSayWhyNot) {
  for (const Folder& c : kFolders) {
    SCOPED_TRACE(c.failure + " " + std::to_string(&c - kFolders));
    for (const auto& [name, bytes] : testing::contents_of(folder.path())) {
      std::filesystem::remove(folder.path(name));
    }
    testing::Channels expected, whole;
    for (const Tap& tap : c.taps) {
      write(tap);
      std::ranges::copy(test_sound(tap.channels, tap.frames), back_inserter(expected));
    }
    for (auto& row : expected) row.resize(70000, 0.0);
    if (!c.failure.empty()) expected.clear();
    loading.strict_inputs = c.lines.empty();
    loading.any_channels = c.any_channels;
    for (loading.workers = 1; loading.workers <= 4; loading.workers += 3) {
      const std::string failure = load_all();
      EXPECT_THAT(failure, HasSubstr(c.failure));
      EXPECT_EQ(sound, expected) << failure;
      EXPECT_EQ(lines, c.lines);
    }
    // A mix is read by the same rules for pairs.
    if (c.taps.size() != 2 || plan.size() != 1) continue;
    EXPECT_THAT(failure_of<ValueError>([&] { whole = rows_of(load_audio_input(plan[0]).audio); }),
                HasSubstr(c.failure));
    EXPECT_EQ(whole, expected);
  }
}

// The warning about a tap's length comes between the look at its header and its decoding.
TEST_F(LoadStems, NamesATapThatVanishesOrShrinksOnTheWay) {
  for (const std::string changed : {"a", "c"}) {
    const std::string path = folder.path(changed + ".wav");
    const auto load_with = [&](const std::function<void()>& change) {
      for (const Tap& each : {Tap{"a.wav"}, {"b.wav", 69000}, {"c.wav"}}) write(each);
      return load_all(change);
    };
    EXPECT_EQ(load_with([&] { std::filesystem::remove(path); }),
              "cannot open “" + path + "”: No such file or directory");
    EXPECT_THAT(load_with([&] { std::filesystem::resize_file(path, 50000); }),
                HasSubstr("“" + path + "” is cut short"));
    const Tap slow{changed + ".wav", 70000, 2, 500};
    EXPECT_EQ(load_with([&] { write(slow); }), changed + ": 500 Hz but mix is 1000 Hz");
  }
}

}  // namespace
}  // namespace verdel::internal
