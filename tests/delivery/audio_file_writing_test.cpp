#include "delivery/audio_file_writing.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <limits>

#include "delivery/delivery_files.hpp"
#include "inputs/audio_loading.hpp"
#include "support/errors.hpp"
#include "support/noise.hpp"

namespace verdel::internal {
namespace {

using testing::bytes_of;
using ::testing::HasSubstr;

// The bytes of a file that was written in two parts, with another start of the clock for each.
std::string written(const std::string& path, WavContainer container, AudioView audio) {
  const std::size_t frames = audio.columns();
  AudioFileWriter writer(
      path, {.sr = 44100, .channels = audio.rows(), .frames = frames, .container = container});
  writer.write(audio.column_range(0, frames / 3));
  writer.write(audio.column_range(frames / 3, frames));
  writer.commit();
  return bytes_of(path);
}

TEST(AudioFileWriting, FilesReadBackBitForBitAndTheirBytesRepeat) {
  const testing::TemporaryFolder folder;
  for (const auto& [channels, frames] : {std::pair{1U, 0U}, {2U, 5U}, {6U, 70001U}}) {
    auto audio = testing::noise_array(channels, frames, 7);
    const double special[] = {0.1, std::numeric_limits<float>::denorm_min(), -3.5, 1e30,
                              1.0 + 0x1p-24};  // half way between two floats: to the even one
    std::copy_n(special, std::min<std::size_t>(audio.size(), 5), audio.data());
    for (const auto& [container, tag] :
         {std::pair{WavContainer::kPlain, "RIFF"}, {WavContainer::kRf64, "RF64"}}) {
      const std::string bytes = written(folder.path("a.wav"), container, audio.view());
      EXPECT_EQ(bytes.substr(0, 4), tag);
      EXPECT_LT(bytes.size(), 200 + audio.size() * sizeof(float));
      // The chunk with the time of writing, which would make every run's file another one.
      EXPECT_EQ(bytes.substr(0, 200).find("PEAK"), std::string::npos);
      EXPECT_EQ(written(folder.path("a.wav"), container, audio.view()), bytes);
      const LoadedAudio loaded = load(folder.path("a.wav"));
      EXPECT_EQ(loaded.sr, 44100);
      ASSERT_TRUE(loaded.audio.view().same_shape(audio.view()));
      for (std::size_t i = 0; i < audio.size(); ++i) {
        ASSERT_EQ(loaded.audio.flat()[i], static_cast<double>(static_cast<float>(audio.flat()[i])));
      }
    }
  }
  const mode_t mask = umask(0027);
  write_audio<double>(folder.path("b.wav"), 48000, AudioArray::zeros(1, 2).view());
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat(folder.path("b.wav").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640U);
}

TEST(AudioFileWriting, Rf64OnlyWherePlainWavEnds) {
  for (const std::size_t channels : {1U, 2U, 6U}) {
    const std::uint64_t at_limit = (std::uint64_t{1} << 32) / (4 * channels);
    for (const auto& [frames, container] : {std::pair{at_limit - 2000, WavContainer::kPlain},
                                            {at_limit - 20, WavContainer::kRf64},
                                            {~std::uint64_t{0}, WavContainer::kRf64}}) {
      EXPECT_EQ(wav_container(channels, frames), container);
    }
  }
}

TEST(AudioFileWriting, AFailureLeavesEverythingAsItWas) {
  const auto audio = testing::noise_array(2, 50000, 8);  // 400 kB
  const std::atomic<bool> stopped = true;
  struct Case {
    const char* target;
    rlim_t most_bytes;
    std::uint64_t announced;
    const char* reason;
    StopToken stop = {};
  };
  constexpr rlim_t kAny = RLIM_INFINITY;
  const Case kCases[] = {{"kept.wav", 20, 50000, "File too large"},
                         {"kept.wav", 300000, 50000, "File too large"},
                         {"kept.wav", 400000, 50000, "File too large"},
                         {"kept.wav/a.wav", kAny, 50000, "Not a directory"},
                         {"folder", kAny, 50000, "Is a directory"},
                         {"nowhere/a.wav", kAny, 50000, "No such file or directory"},
                         {"kept.wav", kAny, 49999, "more frames than announced"},
                         {"kept.wav", kAny, 50001, "fewer frames than announced"},
                         {"kept.wav", kAny, 50000, "the run was cancelled", StopToken(stopped)}};
  const testing::TemporaryFolder folder;
  testing::write_bytes(folder.path("kept.wav"), "a recording");
  folder.touch("folder/");
  const auto before = testing::contents_of(folder.path());
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.reason);
    const auto message = testing::failure_of<std::exception>([&] {
      const FileSizeLimit limit(c.most_bytes);
      AudioFileWriter writer(folder.path(c.target),
                             {.sr = 44100, .channels = 2, .frames = c.announced});
      writer.write(audio.view(), c.stop);
      writer.commit();
    });
    EXPECT_THAT(message, ::testing::EndsWith(c.reason));
    EXPECT_EQ(message.find("“" + folder.path(c.target) + "”") == std::string::npos,
              c.stop.requested());
    EXPECT_EQ(testing::contents_of(folder.path()), before);
  }
}

}  // namespace
}  // namespace verdel::internal
