#include "delivery/audio_file_writing.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <bit>
#include <functional>
#include <limits>
#include <random>

#include "delivery_files.hpp"
#include "support/errors.hpp"

namespace verdel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

Array2D<float> any_floats(std::size_t channels, std::size_t frames) {
  std::mt19937 random(7);
  auto audio = Array2D<float>::uninitialised(channels, frames);
  for (auto& x : audio.flat()) x = static_cast<float>(random()) / 1e9f - 2.0f;
  const float special[] = {-0.0f, std::numeric_limits<float>::denorm_min(), -3.5f, 1e30f};
  std::copy_n(special, std::min<std::size_t>(audio.size(), 4), audio.data());
  return audio;
}

TEST(AudioFileWriting, FilesReadBackBitForBit) {
  const testing::TemporaryFolder folder;
  for (const WavContainer container : {WavContainer::kPlain, WavContainer::kRf64}) {
    const bool wav = container == WavContainer::kPlain;
    for (const std::size_t channels : {1u, 2u, 6u}) {
      for (const std::size_t frames : {0u, 1u, 70001u}) {
        const auto audio = any_floats(channels, frames);
        const std::string path = folder.path("a.wav");
        AudioFileWriter writer(
            path, {.sr = 44100, .channels = channels, .frames = frames, .container = container});
        writer.write(audio.view().column_range(0, frames / 3));
        writer.write(RowsView<const float>(audio.view()).column_range(frames / 3, frames));
        writer.commit();

        const auto read = read_audio(path);
        EXPECT_EQ(read.info.samplerate, 44100);
        EXPECT_EQ(read.info.format, (wav ? SF_FORMAT_WAV : SF_FORMAT_RF64) | SF_FORMAT_FLOAT);
        ASSERT_EQ(read.info.channels, static_cast<int>(channels));
        ASSERT_EQ(read.info.frames, static_cast<sf_count_t>(frames));
        for (std::size_t i = 0; i < read.samples.size(); ++i) {
          ASSERT_EQ(std::bit_cast<std::uint32_t>(read.samples[i]),
                    std::bit_cast<std::uint32_t>(audio.row(i % channels)[i / channels]));
        }
        const std::string header = bytes_of(path).substr(0, 200);
        EXPECT_EQ(header.substr(0, 4), wav ? "RIFF" : "RF64");
        // The chunk with the time of writing, which would make every run's file another one.
        EXPECT_EQ(header.find("PEAK"), std::string::npos);
      }
    }
  }
}

TEST(AudioFileWriting, DoublesAreRoundedAndTheBytesRepeat) {
  const testing::TemporaryFolder folder;
  auto audio = AudioArray::zeros(1, 2);
  audio.row(0)[0] = 0.1;
  audio.row(0)[1] = 1.0 + 0x1p-24;  // half way between two floats: to the even one
  write_audio<double>(folder.path("a.wav"), 48000, audio.view());
  EXPECT_THAT(read_audio(folder.path("a.wav")).samples, ElementsAre(0.1f, 1.0f));
  const std::string first = bytes_of(folder.path("a.wav"));
  write_audio<double>(folder.path("a.wav"), 48000, audio.view());
  EXPECT_EQ(bytes_of(folder.path("a.wav")), first);
  EXPECT_THAT(names_in(folder.path()), ElementsAre("a.wav"));

  const mode_t mask = umask(0027);
  write_audio<double>(folder.path("b.wav"), 48000, audio.view());
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat(folder.path("b.wav").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640u);
}

TEST(AudioFileWriting, Rf64OnlyWherePlainWavEnds) {
  constexpr std::uint64_t kFourGiB = std::uint64_t{1} << 32;
  for (const std::size_t channels : {1u, 2u, 6u}) {
    const std::uint64_t at_limit = kFourGiB / (4 * channels);
    EXPECT_EQ(wav_container(channels, 0), WavContainer::kPlain);
    EXPECT_EQ(wav_container(channels, at_limit - 2000), WavContainer::kPlain);
    EXPECT_EQ(wav_container(channels, at_limit - 20), WavContainer::kRf64);
    EXPECT_EQ(wav_container(channels, at_limit), WavContainer::kRf64);
    EXPECT_EQ(wav_container(channels, ~std::uint64_t{0}), WavContainer::kRf64);
  }
}

TEST(AudioFileWriting, AFailureLeavesEverythingAsItWas) {
  const auto audio = any_floats(2, 50000);  // 400 kB
  const std::atomic<bool> stop = true;
  const auto announce = [](std::uint64_t frames) {
    return AudioFileFormat{.sr = 44100, .channels = 2, .frames = frames};
  };
  const auto write = [&](const std::string& path) {
    write_audio<float>(path, 44100, audio.view());
  };
  const auto write_limited = [&](rlim_t bytes) {
    return [&write, bytes](const std::string& path) {
      const FileSizeLimit limit(bytes);
      write(path);
    };
  };
  struct Case {
    const char* target;
    const char* reason;
    std::function<void(const std::string& path)> attempt;
  };
  const Case cases[] = {
      {"kept.wav", "File too large", write_limited(20)},
      {"kept.wav", "File too large", write_limited(300000)},
      {"kept.wav", "File too large", write_limited(400000)},
      {"kept.wav/a.wav", "Not a directory", write},
      {"folder", "Is a directory", write},
      {"nowhere/a.wav", "No such file or directory", write},
      {"kept.wav", "more frames than announced",
       [&](auto& path) { AudioFileWriter(path, announce(49999)).write(audio.view()); }},
      {"kept.wav", "fewer frames than announced",
       [&](auto& path) {
         AudioFileWriter writer(path, announce(50001));
         writer.write(audio.view());
         writer.commit();
       }},
      {"kept.wav", "",
       [&](auto& path) { AudioFileWriter(path, announce(50000)).write(audio.view()); }},
      {"kept.wav", "the run was cancelled", [&](auto& path) {
         AudioFileWriter(path, announce(50000)).write(audio.view(), StopToken(stop));
       }}};
  for (const auto& c : cases) {
    const testing::TemporaryFolder folder;
    write_bytes(folder.path("kept.wav"), "a recording");
    std::filesystem::create_directory(folder.path("folder"));
    std::string message;
    try {
      c.attempt(folder.path(c.target));
    } catch (const OSError& e) {
      message = e.what();
      EXPECT_THAT(message, HasSubstr("“" + folder.path(c.target) + "”"));
    } catch (const Cancelled& e) {
      message = e.what();
    }
    EXPECT_EQ(message.empty(), *c.reason == '\0') << message;
    EXPECT_THAT(message, HasSubstr(c.reason));
    EXPECT_THAT(names_in(folder.path()), ElementsAre("folder", "kept.wav")) << c.target;
    EXPECT_EQ(bytes_of(folder.path("kept.wav")), "a recording");
  }
}

TEST(AudioFileWriting, TheTemporaryFileIsRecognisable) {
  const testing::TemporaryFolder folder;
  const AudioFileWriter writer(folder.path("a.wav"), {.sr = 44100, .channels = 1, .frames = 1});
  EXPECT_THAT(names_in(folder.path()),
              ElementsAre(::testing::MatchesRegex("\\.verdel-[a-z0-9]{8}\\.part")));
}

}  // namespace
}  // namespace verdel
