#include "inputs/audio_loading.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "support/audio_files.hpp"
#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

using ::testing::ElementsAre;
using testing::failure_of;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::test_sound;

constexpr int kWav = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
constexpr int kFlac = SF_FORMAT_FLAC | SF_FORMAT_PCM_16;

void forget_length(const std::string& path) {
  testing::write_bytes(path, testing::without_flac_length(testing::bytes_of(path)));
}

// Ruins a FLAC file's audio and leaves its header and its last frame.
void ruin(const std::string& path) {
  std::string bytes = testing::bytes_of(path);
  testing::write_bytes(path, bytes.replace(bytes.size() / 2, 40, 40, '\0'));
}

void cut(const std::string& path) {
  std::filesystem::resize_file(path, std::filesystem::file_size(path) - 1);
}

testing::Channels rows_of(const AudioArray& audio) {
  testing::Channels rows;
  for (std::size_t c = 0; c < audio.rows(); ++c) {
    rows.emplace_back(audio.row(c).begin(), audio.row(c).end());
  }
  return rows;
}

TEST(Load, GivesChannelsAsRowsForEveryWayOfReading) {
  const testing::TemporaryFolder folder;
  const std::string path = folder.path("a");
  const testing::Channels sound = test_sound(3, 70001);  // several decoding blocks
  for (const int format : {kWav, kFlac}) {
    testing::write_audio(path, sound, 22050, format);
    const LoadedAudio loaded = load(path);
    EXPECT_EQ(loaded.sr, 22050);
    EXPECT_EQ(rows_of(loaded.audio), sound);
  }
  forget_length(path);
  EXPECT_EQ(rows_of(load(path).audio), sound);
  ruin(path);
  EXPECT_THAT(failure_of<RuntimeError>([&] { load(path); }),
              HasSubstr("“" + path + "” is damaged or cut short"));

  const std::atomic<bool> stopped = true;
  EXPECT_THROW(load(path, StopToken(stopped)), Cancelled);
}

TEST(LoadAudioInput, JoinsPairsThatBelongTogether) {
  struct Side {
    std::size_t channels = 1, frames = 100;
    int sr = 44100, format = kWav;
    bool forgets_length = false;
  };
  constexpr Side kOpen{.format = kFlac, .forgets_length = true};
  const std::string lengths =
      "x.L and x.R have different lengths. Bounce both mono sides over the exact same range.";
  const std::tuple<Side, Side, std::string> kCases[] = {
      {{}, {}, ""},
      {kOpen, kOpen, ""},
      {{.channels = 2, .sr = 8000}, {}, "x.L: 2-channel; each .L/.R side must be mono."},
      {{}, {.channels = 3}, "x.R: 3-channel; each .L/.R side must be mono."},
      {{.frames = 9, .sr = 8000},
       {},
       "x.L and x.R have different sample rates. Bounce both mono sides at the same sample rate."},
      {{}, {.frames = 101}, lengths},
      {{.frames = 101}, kOpen, lengths}};
  const testing::TemporaryFolder folder;
  const StemInput pair{"x", {folder.path("x.L"), folder.path("x.R")}};
  for (const auto& [left, right, failure] : kCases) {
    double gain = 0.5;
    for (const auto& [side, path] : {std::pair(left, pair.files[0]), {right, pair.files[1]}}) {
      testing::write_audio(path, test_sound(side.channels, side.frames, gain), side.sr,
                           side.format);
      if (side.forgets_length) forget_length(path);
      gain /= 2.0;
    }
    LoadedAudio loaded;
    EXPECT_EQ(failure_of<ValueError>([&] { loaded = load_audio_input(pair); }), failure);
    if (!failure.empty()) continue;
    EXPECT_EQ(rows_of(loaded.audio),
              (testing::Channels{test_sound(1, 100, 0.5)[0], test_sound(1, 100, 0.25)[0]}));
    EXPECT_EQ(check_audio_input(pair).channels, 2u);
    EXPECT_EQ(check_audio_input(pair).frames.has_value(), !left.forgets_length);
  }
}

// A folder of taps for a stereo mix of 1000 frames at 1000 Hz, and what loading it gave.
class LoadStems : public ::testing::Test {
 protected:
  void write(const std::string& name, std::size_t frames = 1000, int sr = 1000,
             std::size_t channels = 2) {
    testing::write_audio(folder.path(name), test_sound(channels, frames), sr,
                         name.ends_with("flac") ? kFlac : kWav);
  }
  std::string load(const std::function<void()>& at_first_line = {}) {
    loading.folder = folder.path();
    lines.clear();
    stems.clear();
    return failure_of<std::runtime_error>([&] {
      stems = load_stem_inputs(loading, [&](auto line) {
        lines.emplace_back(line);
        if (at_first_line && lines.size() == 1) at_first_line();
      });
    });
  }

  testing::TemporaryFolder folder;
  StemLoading loading{.folder = "", .mix_sr = 1000, .mix_channels = 2, .mix_frames = 1000};
  std::vector<std::string> lines;
  StemMap stems;
};

TEST_F(LoadStems, CutsAndExtendsToTheMix) {
  write("b exact.wav");
  write("A short.wav", 998);
  write("c long.wav", 2000);
  write("d open.flac", 500);
  forget_length(folder.path("d open.flac"));
  write("e.L.flac", 997, 1000, 1);
  write("e.R.wav", 997, 1000, 1);
  for (loading.workers = 1; loading.workers <= 4; loading.workers += 3) {
    EXPECT_EQ(load(), "");
    // Headers first; the stream's length shows only when it is decoded.
    EXPECT_THAT(lines, ElementsAre("  ! c long length 2.00s vs mix 1.00s - LENGTH MISMATCH",
                                   "  ! e length 1.00s vs mix 1.00s - LENGTH MISMATCH",
                                   "  ! d open length 0.50s vs mix 1.00s - LENGTH MISMATCH"));
    ASSERT_EQ(stems.size(), 5u);
    const std::vector<std::string> names = {"A short", "b exact", "c long", "d open", "e"};
    const std::vector<std::size_t> kept = {998, 1000, 1000, 500, 997};
    for (std::size_t s = 0; s < stems.size(); ++s) {
      EXPECT_EQ(stems[s].name, names[s]);
      testing::Channels expected = test_sound(s == 4 ? 1 : 2, kept[s]);
      if (s == 4) expected.push_back(expected[0]);
      for (auto& row : expected) row.resize(1000, 0.0);
      EXPECT_EQ(rows_of(stems[s].audio), expected) << names[s];
    }
  }
}

TEST_F(LoadStems, JudgesRateThenChannelsThenLength) {
  const std::string length =
      "a has a different length from the mix. Bounce every stem over the exact same range as the "
      "mix.";
  loading.strict_inputs = true;
  EXPECT_EQ(load(), "no tap files found");
  write("a.wav", 998);
  EXPECT_EQ(load(), "");
  EXPECT_THAT(lines, IsEmpty());
  write("a.wav", 1003);
  EXPECT_EQ(load(), length);
  write("a.wav", 1003, 1000, 1);
  EXPECT_EQ(load(),
            "a: 1-channel but the mix is 2-channel. Bounce everything as stereo, or provide "
            "matching mono .L and .R files.");
  write("a.wav", 1003, 500, 1);
  EXPECT_EQ(load(), "a: 500 Hz but mix is 1000 Hz");

  loading.any_channels = true;
  write("a.wav", 1001, 1000, 1);
  EXPECT_EQ(load(), "");
  EXPECT_EQ(rows_of(stems.front().audio), test_sound(1, 1000));

  std::filesystem::remove(folder.path("a.wav"));
  write("a.flac", 900, 1000, 1);
  forget_length(folder.path("a.flac"));
  EXPECT_EQ(load(), length);
}

TEST_F(LoadStems, SeesEveryHeaderBeforeItDecodesAnything) {
  loading.mix_frames = 20000;
  write("a.flac", 19900);
  ruin(folder.path("a.flac"));
  write("z.wav", 20000, 48000);
  EXPECT_EQ(load(), "z: 48000 Hz but mix is 1000 Hz");
  EXPECT_THAT(lines, ElementsAre(HasSubstr("! a length 19.90s")));
  write("z.wav", 20000);
  cut(folder.path("z.wav"));
  EXPECT_THAT(load(), HasSubstr("/z.wav” is cut short"));
  std::filesystem::remove(folder.path("z.wav"));
  write("z.flac", 20000);
  cut(folder.path("z.flac"));
  EXPECT_THAT(load(), HasSubstr("/z.flac” is damaged or cut short"));
  write("z.flac", 20000);
  EXPECT_THAT(load(), HasSubstr("/a.flac” is damaged or cut short"));
}

// The warning about a tap's length comes between planning and loading.
TEST_F(LoadStems, NamesATapThatVanishesOrShrinksOnTheWay) {
  loading.mix_frames = 20000;
  for (const std::string changed : {"a.wav", "c.wav"}) {
    write("a.wav", 20000);
    write("b.wav", 19000);
    write("c.wav", 20000);
    const std::string path = folder.path(changed);
    EXPECT_EQ(load([&] { std::filesystem::remove(path); }),
              "cannot open “" + path + "”: No such file or directory");
    write(changed, 20000);
    EXPECT_THAT(load([&] { cut(path); }), HasSubstr("“" + path + "” is cut short"));
    write(changed, 20000);
    EXPECT_EQ(load([&] { write(changed, 20000, 500); }),
              changed.substr(0, 1) + ": 500 Hz but mix is 1000 Hz");
  }
}

}  // namespace
}  // namespace verdel::internal
