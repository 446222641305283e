#include "delivery/audio_file_writing.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/stat.h>

#include <atomic>
#include <bit>
#include <functional>
#include <limits>
#include <random>

#include "delivery/delivery_files.hpp"
#include "inputs/audio_loading.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

using testing::bytes_of;
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
    for (const auto& [channels, frames] : {std::pair{1u, 0u}, {2u, 1u}, {6u, 70001u}}) {
      const auto audio = any_floats(channels, frames);
      const std::string path = folder.path("a.wav");
      AudioFileWriter writer(
          path, {.sr = 44100, .channels = channels, .frames = frames, .container = container});
      writer.write(audio.view().column_range(0, frames / 3));
      writer.write(RowsView<const float>(audio.view()).column_range(frames / 3, frames));
      writer.commit();

      SF_INFO info{};
      SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
      ASSERT_NE(file, nullptr);
      std::vector<float> samples(channels * frames);
      EXPECT_EQ(sf_read_float(file, samples.data(), std::ssize(samples)), std::ssize(samples));
      sf_close(file);
      const bool wav = container == WavContainer::kPlain;
      EXPECT_EQ(info.samplerate, 44100);
      EXPECT_EQ(info.format, (wav ? SF_FORMAT_WAV : SF_FORMAT_RF64) | SF_FORMAT_FLOAT);
      EXPECT_EQ(info.channels, static_cast<int>(channels));
      EXPECT_EQ(info.frames, static_cast<sf_count_t>(frames));
      for (std::size_t i = 0; i < samples.size(); ++i) {
        ASSERT_EQ(std::bit_cast<std::uint32_t>(samples[i]),
                  std::bit_cast<std::uint32_t>(audio.row(i % channels)[i / channels]));
      }
      // The chunk with the time of writing, which would make every run's file another one.
      EXPECT_EQ(bytes_of(path).substr(0, 200).find("PEAK"), std::string::npos);
    }
  }
}

TEST(AudioFileWriting, DoublesAreRoundedAndTheBytesRepeat) {
  const testing::TemporaryFolder folder;
  auto audio = AudioArray::zeros(1, 2);
  audio.row(0)[0] = 0.1;
  audio.row(0)[1] = 1.0 + 0x1p-24;  // half way between two floats: to the even one
  write_audio<double>(folder.path("a.wav"), 48000, audio.view());
  EXPECT_TRUE(std::ranges::equal(load(folder.path("a.wav")).audio.flat(),
                                 std::vector{static_cast<double>(0.1f), 1.0}));
  const std::string first = bytes_of(folder.path("a.wav"));
  write_audio<double>(folder.path("a.wav"), 48000, audio.view());
  EXPECT_EQ(bytes_of(folder.path("a.wav")), first);
  EXPECT_EQ(testing::contents_of(folder.path()).size(), 1u);

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
    for (const std::uint64_t frames : {std::uint64_t{0}, at_limit - 2000}) {
      EXPECT_EQ(wav_container(channels, frames), WavContainer::kPlain);
    }
    for (const std::uint64_t frames : {at_limit - 20, at_limit, ~std::uint64_t{0}}) {
      EXPECT_EQ(wav_container(channels, frames), WavContainer::kRf64);
    }
  }
}

TEST(AudioFileWriting, AFailureLeavesEverythingAsItWas) {
  const auto audio = any_floats(2, 50000);  // 400 kB
  const std::atomic<bool> stop = true;
  const auto announce = [](const std::string& path, std::uint64_t frames) {
    return AudioFileWriter(path, {.sr = 44100, .channels = 2, .frames = frames});
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
  const Case kCases[] = {
      {"kept.wav", "File too large", write_limited(20)},
      {"kept.wav", "File too large", write_limited(300000)},
      {"kept.wav", "File too large", write_limited(400000)},
      {"kept.wav/a.wav", "Not a directory", write},
      {"folder", "Is a directory", write},
      {"nowhere/a.wav", "No such file or directory", write},
      {"kept.wav", "more frames than announced",
       [&](auto& path) { announce(path, 49999).write(audio.view()); }},
      {"kept.wav", "fewer frames than announced",
       [&](auto& path) {
         auto writer = announce(path, 50001);
         writer.write(audio.view());
         writer.commit();
       }},
      {"kept.wav", "", [&](auto& path) { announce(path, 50000).write(audio.view()); }},
      {"kept.wav", "the run was cancelled",
       [&](auto& path) { announce(path, 50000).write(audio.view(), StopToken(stop)); }}};
  const testing::TemporaryFolder folder;
  testing::write_bytes(folder.path("kept.wav"), "a recording");
  folder.touch("folder/");
  const auto before = testing::contents_of(folder.path());
  for (const Case& c : kCases) {
    const auto message =
        testing::failure_of<std::exception>([&] { c.attempt(folder.path(c.target)); });
    EXPECT_EQ(message.empty(), *c.reason == '\0') << message;
    EXPECT_THAT(message, HasSubstr(c.reason));
    if (message.find("cancelled") == std::string::npos && !message.empty()) {
      EXPECT_THAT(message, HasSubstr("“" + folder.path(c.target) + "”"));
    }
    EXPECT_EQ(testing::contents_of(folder.path()), before) << c.target;
  }
  const auto writer = announce(folder.path("a.wav"), 1);
  EXPECT_THAT(testing::contents_of(folder.path()).begin()->first,
              ::testing::MatchesRegex("\\.verdel-[a-z0-9]{8}\\.part"));
}

}  // namespace
}  // namespace verdel::internal
