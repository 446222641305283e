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

using testing::bytes_of;
using testing::failure_of;
using ::testing::HasSubstr;
using testing::rows_of;
using testing::test_sound;
using testing::write_bytes;

constexpr std::size_t kMixFrames = 20000;  // several decoding blocks, if there are many channels
enum class Harm { kNone, kForgotten, kRuined, kCut };

struct File {
  std::string name;
  std::size_t frames = kMixFrames, channels = 2;
  int sr = 1000;
  Harm harm = Harm::kNone;

  bool is_side() const { return name.find(".L.") != name.npos || name.find(".R.") != name.npos; }
};

// A folder of taps for a stereo mix of twenty seconds at 1000 Hz, and what loading it gave.
class LoadStems : public ::testing::Test {
 protected:
  void write(const File& file) {
    const std::string path = folder.path(file.name);
    testing::write_audio(path, test_sound(file.channels, file.frames), file.sr,
                         file.name.ends_with("flac") ? SF_FORMAT_FLAC | SF_FORMAT_PCM_16
                                                     : SF_FORMAT_WAV | SF_FORMAT_FLOAT);
    std::string bytes = bytes_of(path);
    if (file.harm == Harm::kForgotten) bytes = testing::without_flac_length(bytes);
    if (file.harm == Harm::kRuined) bytes.replace(bytes.size() / 2, 40, 40, '\0');
    if (file.harm == Harm::kCut) bytes.pop_back();
    write_bytes(path, bytes);
  }
  std::string load_all(const std::function<void()>& at_first_line = {}) {
    lines.clear();
    stems.clear();
    return failure_of<std::runtime_error>([&] {
      plan = plan_stem_inputs(folder.path());
      stems = load_stem_inputs(plan, loading, [&](auto line) {
        lines.emplace_back(line);
        if (at_first_line && lines.size() == 1) at_first_line();
      });
    });
  }

  testing::TemporaryFolder folder;
  StemLoading loading{.mix_sr = 1000, .mix_channels = 2, .mix_frames = kMixFrames};
  std::vector<StemInput> plan;
  std::vector<std::string> lines;
  StemMap stems;
};

// Taps in stem order, and what comes of them.
struct Case {
  std::vector<File> files;
  std::string failure = "";
  std::vector<std::string> lines = {};
  bool strict = false, any_channels = false;
};

std::vector<Case> stems_and_the_mix() {
  const std::string length =
      "a has a different length from the mix. Bounce every stem over the exact same range as the "
      "mix.";
  const auto mismatch = [](const std::string& name, const std::string& seconds) {
    return "  ! " + name + " length " + seconds + "s vs mix 20.00s - LENGTH MISMATCH";
  };
  return {
      {{}, "no tap files found"},
      // A length that only decoding tells draws its warning in stem order too.
      {{{"A short.wav", 19998},
        {"b long.wav", 40000},
        {"c open.flac", 500, 2, 1000, Harm::kForgotten},
        {"d.L.flac", 19997, 1},
        {"d.R.wav", 19997, 1}},
       "",
       {mismatch("b long", "40.00"), mismatch("c open", "0.50"), mismatch("d", "20.00")}},
      {{{"a.flac", 500, 2, 1000, Harm::kForgotten}, {"b.wav", 19000}, {"z\x7F.wav", 9, 1, 500}},
       "z\\x7F: 500 Hz but mix is 1000 Hz",
       {mismatch("b", "19.00")}},
      {{{"a.wav", 19998}, {"b.wav", 20002}}, "", {}, true},
      {{{"a.wav", 19997}}, length, {}, true},
      {{{"a.wav", 20003}}, length, {}, true},
      {{{"a.flac", 19900, 2, 1000, Harm::kForgotten}}, length, {}, true},
      {{{"a.wav", 9, 1}},
       "a: 1-channel but the mix is 2-channel. Bounce everything as stereo, or provide matching "
       "mono .L and .R files.",
       {},
       true},
      {{{"a.wav", 20001, 1}}, "", {}, true, true},
      // Every header is seen before anything is decoded, and the end of what is compressed.
      {{{"a.flac", 19900, 2, 1000, Harm::kRuined}, {"z.wav", 20000, 2, 48000}},
       "z: 48000 Hz but mix is 1000 Hz",
       {mismatch("a", "19.90")}},
      {{{"a.flac", 20000, 2, 1000, Harm::kRuined}, {"z.flac", 20000, 2, 1000, Harm::kCut}},
       "/z.flac” is damaged or cut short"},
      {{{"a.flac", 20000, 2, 1000, Harm::kRuined}, {"z.flac"}}, "/a.flac” is damaged or cut short"},
  };
}

std::vector<Case> pairs() {
  const std::string lengths =
      "x.L.flac and x.R.flac have different lengths. Bounce both mono sides over the exact same "
      "range.";
  const File right{"x.R.flac", kMixFrames, 1};
  constexpr Harm kForgotten = Harm::kForgotten;
  return {
      {{{"x.L.flac", kMixFrames, 1, 1000, kForgotten},
        {"x.R.flac", kMixFrames, 1, 1000, kForgotten}}},
      {{{"x.L.wav", kMixFrames, 1}, {"x.R.wav", kMixFrames, 1}}},
      {{{"x.L.flac", kMixFrames, 2, 500}, right},
       "x.L.flac: 2-channel; each .L/.R side must be mono."},
      {{{"x.L.wav", 9, 1, 500}, {"x.R.wav", 9, 3}}, "x.R.wav: 3-channel; each .L/.R side must be"},
      {{{"x.L.flac", 9, 1, 500}, right},
       "x.L.flac and x.R.flac have different sample rates. Bounce both mono sides at the same "
       "sample rate."},
      {{{"x.L.flac", 20001, 1}, right}, lengths},
      {{{"x.L.flac", 20001, 1, 1000, kForgotten}, right}, lengths}};
}

TEST_F(LoadStems, FitToTheMixOrSayWhyNot) {
  for (const auto& cases : {stems_and_the_mix(), pairs()}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.failure + " " + std::to_string(&c - cases.data()));
      for (const auto& [name, bytes] : testing::contents_of(folder.path())) {
        std::filesystem::remove(folder.path(name));
      }
      for (const File& file : c.files) write(file);
      loading.strict_inputs = c.strict;
      loading.any_channels = c.any_channels;
      for (loading.workers = 1; loading.workers <= 4; loading.workers += 3) {
        const std::string failure = load_all();
        EXPECT_THAT(failure, HasSubstr(c.failure));
        EXPECT_EQ(failure.empty(), c.failure.empty()) << failure;
        EXPECT_EQ(lines, c.lines);
      }
      testing::Channels whole, expected, given;
      for (const File& file : c.failure.empty() ? c.files : std::vector<File>()) {
        for (auto& row : test_sound(file.channels, file.frames)) {
          expected.push_back(row);
          expected.back().resize(kMixFrames, 0.0);
        }
      }
      for (const auto& stem : stems) {
        for (const auto& row : rows_of(stem.audio)) given.push_back(row);
      }
      EXPECT_EQ(given, expected);
      // A mix is read by the same rules for pairs.
      if (c.files.size() != 2 || plan.size() != 1) continue;
      EXPECT_THAT(failure_of<ValueError>([&] { whole = rows_of(load_audio_input(plan[0]).audio); }),
                  HasSubstr(c.failure));
      EXPECT_EQ(whole, expected);
    }
  }
}

// The warning about a tap's length comes between the look at its header and its decoding.
TEST_F(LoadStems, NamesATapThatVanishesOrShrinksOnTheWay) {
  for (const std::string changed : {"a", "c"}) {
    for (const File& file : {File{"a.wav"}, {"b.wav", 19000}, {"c.wav"}}) write(file);
    const std::string path = folder.path(changed + ".wav");
    EXPECT_EQ(load_all([&] { std::filesystem::remove(path); }),
              "cannot open “" + path + "”: No such file or directory");
    write({changed + ".wav"});
    const auto cut = [&] { write({changed + ".wav", kMixFrames, 2, 1000, Harm::kCut}); };
    EXPECT_THAT(load_all(cut), HasSubstr("“" + path + "” is cut short"));
    write({changed + ".wav"});
    EXPECT_EQ(load_all([&] {
                write({changed + ".wav", 1000, 2, 500});
              }),
              changed + ": 500 Hz but mix is 1000 Hz");
  }
}

TEST_F(LoadStems, AMixIsReadInManyBlocksUntilItIsStopped) {
  for (const Harm harm : {Harm::kNone, Harm::kForgotten}) {
    write({"a.flac", 70001, 3, 22050, harm});
    const LoadedAudio loaded = load(folder.path("a.flac"));
    EXPECT_EQ(loaded.sr, 22050);
    EXPECT_EQ(rows_of(loaded.audio), test_sound(3, 70001));
    const std::atomic<bool> stopped = true;
    EXPECT_THROW(load(folder.path("a.flac"), StopToken(stopped)), Cancelled);
  }
}

}  // namespace
}  // namespace verdel::internal
