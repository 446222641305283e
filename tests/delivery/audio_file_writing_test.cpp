#include "delivery/audio_file_writing.hpp"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "delivery/delivery_files.hpp"
#include "inputs/audio_file.hpp"
#include "inputs/audio_loading.hpp"
#include "support/noise.hpp"

namespace verdel::internal {
namespace {

TEST(AudioFileWriting, FilesReadBackBitForBitAndTheirBytesRepeat) {
  const testing::TemporaryFolder folder;
  const std::string path = folder.path("a.wav");
  const mode_t mask = umask(0027);
  for (const auto& [channels, frames] : {std::pair{1U, 0U}, {2U, 5U}, {6U, 70001U}}) {
    auto audio = testing::noise_array(channels, frames, 7);
    // The last is half way between two floats: it goes to the even one.
    const double special[] = {0.1, 0x1p-149, 1e30, 1.0 + 0x1p-24};
    std::copy_n(special, std::min<std::size_t>(audio.size(), 4), audio.data());
    for (const auto& [container, tag] :
         {std::pair{WavContainer::kPlain, "RIFF"}, {WavContainer::kRf64, "RF64"}}) {
      const AudioFileFormat format{
          .sr = 44100, .channels = channels, .frames = frames, .container = container};
      write_in_parts(path, format, audio.view());
      const std::string bytes = testing::bytes_of(path);
      EXPECT_EQ(bytes.substr(0, 4), tag);
      EXPECT_LT(bytes.size(), 200 + audio.size() * sizeof(float));
      // The chunk with the time of writing, which would make every run's file another one.
      EXPECT_EQ(bytes.substr(0, 200).find("PEAK"), std::string::npos);
      const LoadedAudio loaded = load(path);
      EXPECT_EQ(loaded.sr, 44100);
      ASSERT_TRUE(loaded.audio.view().same_shape(audio.view()));
      for (double& x : audio.flat()) x = static_cast<double>(static_cast<float>(x));
      EXPECT_TRUE(std::ranges::equal(loaded.audio.flat(), audio.flat()));
    }
  }
  umask(mask);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0640});
}

TEST(AudioFileWriting, IntegersReadBackAndTheirPlaceInTimeStandsAheadOfThem) {
  const testing::TemporaryFolder folder;
  const BroadcastInfo place{.description = std::string(255, 'a') + "ä",
                            .originator = "desk",
                            .date = "2026-11-24",
                            .time = "01:02:03",
                            .time_reference = std::uint64_t{1} << 33};
  for (const auto& [type, samples, container] :
       {std::tuple{FileType::kWav, SampleType::kInteger24, WavContainer::kPlain},
        {FileType::kWav, SampleType::kInteger24, WavContainer::kRf64},
        {FileType::kWav, SampleType::kInteger16, WavContainer::kPlain},
        {FileType::kFlac, SampleType::kInteger24, WavContainer::kPlain},
        {FileType::kAiff, SampleType::kInteger16, WavContainer::kPlain}}) {
    const bool is_wav = type == FileType::kWav;
    const std::int32_t steps = samples == SampleType::kInteger16 ? 1 << 15 : 1 << 23;
    auto integers = Array2D<std::int32_t>::uninitialised(1, 70001);  // an odd number of bytes
    for (std::size_t i = 0; i < 70001; ++i) {
      integers.data()[i] = static_cast<std::int32_t>(i * 7919 * 7919) % steps;
    }
    integers.data()[5] = -steps;
    AudioFileWriter writer(folder.path("a"),
                           {.sr = 48000,
                            .channels = 1,
                            .frames = 70001,
                            .type = type,
                            .samples = samples,
                            .broadcast = is_wav ? std::optional(place) : std::nullopt,
                            .container = container});
    writer.write(integers.view());
    const LoadedAudio before = load(writer.finish());
    EXPECT_FALSE(std::filesystem::exists(folder.path("a")));
    writer.commit();
    const AudioFile file(folder.path("a"));
    EXPECT_EQ(file.integer_bits(), 8 * bytes_of(samples));
    EXPECT_TRUE(std::ranges::equal(before.audio.flat(), integers.flat(), {},
                                   [&](double x) { return x * steps; }));
    const std::string bytes = testing::bytes_of(folder.path("a"));
    if (is_wav) {
      BroadcastInfo cut = place;
      cut.description.resize(255);
      EXPECT_EQ(file.broadcast_info(), cut);
      EXPECT_LT(bytes.find("bext"), bytes.find("data"));
    }
    std::filesystem::remove(folder.path("a"));
  }
}

TEST(AudioFileWriting, Rf64OnlyWherePlainWavEnds) {
  for (const std::size_t channels : {1U, 2U, 6U}) {
    const std::uint64_t at_limit = (std::uint64_t{1} << 32) / (4 * channels);
    EXPECT_EQ(wav_container(channels, at_limit - 2000), WavContainer::kPlain);
    EXPECT_EQ(wav_container(channels, at_limit - 20), WavContainer::kRf64);
    EXPECT_EQ(wav_container(channels, ~std::uint64_t{0}), WavContainer::kRf64);
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
  const Case kCases[] = {{"kept.wav", 20, 50000, "File too large"},
                         {"kept.wav", 300000, 50000, "File too large"},
                         {"kept.wav", 400000, 50000, "File too large"},
                         {"kept.wav/a.wav", RLIM_INFINITY, 50000, "Not a directory"},
                         {"folder", RLIM_INFINITY, 50000, "Is a directory"},
                         {"nowhere/a.wav", RLIM_INFINITY, 50000, "No such file or directory"},
                         {"kept.wav", RLIM_INFINITY, 49999, "more frames than announced"},
                         {"kept.wav", RLIM_INFINITY, 50001, "fewer frames than announced"},
                         {"kept.wav", RLIM_INFINITY, 50000, "was cancelled", StopToken(stopped)}};
  const testing::TemporaryFolder folder;
  testing::write_bytes(folder.path("kept.wav"), "a recording");
  folder.touch("folder/");
  const auto before = testing::contents_of(folder.path());
  for (const Case& c : kCases) {
    const std::string path = folder.path(c.target);
    limit_files_to(c.most_bytes);
    const auto message = testing::failure_of<std::exception>([&] {
      write_in_parts(path, {44100, 2, c.announced}, audio.view(), c.stop);
    });
    limit_files_to(RLIM_INFINITY);
    EXPECT_THAT(message, ::testing::EndsWith(c.reason));
    EXPECT_EQ(message.starts_with("cannot write “" + path + "”: "), !c.stop.requested());
    EXPECT_EQ(testing::contents_of(folder.path()), before) << c.reason;
  }
}

}  // namespace
}  // namespace verdel::internal
