#include "driver/folder_proof.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "driver/small_projects.hpp"

namespace verdel::internal {
namespace {

using testing::Channels;
using ::testing::HasSubstr;
using testing::run_entry;
using testing::TemporaryFolder;

// A mix, and a folder with the halves that it is made of, from a sample on.
class FolderProof : public ::testing::Test {
 protected:
  static constexpr std::size_t kFrames = 3000;

  FolderProof() {
    std::filesystem::create_directories(folder_.path("stems"));
    testing::write_audio(folder_.path("mix.wav"), half(0, 2.0), 1000);
    testing::write_audio(folder_.path("stems/_NULL_RESIDUAL.wav"), half(0), 1000);
  }
  static Channels half(std::size_t start, double scale = 1.0) {
    Channels sound(2);
    for (std::size_t i = start; i < kFrames; ++i) {
      sound[0].push_back(scale * static_cast<double>(i % 64) / 256.0);
      sound[1].push_back(-sound[0].back());
    }
    return sound;
  }
  void write_stem(const std::string& name, const Channels& sound) const {
    testing::write_audio(folder_.path("stems/" + name), sound, 1000);
  }
  testing::RunResult verify(std::vector<std::string> more = {}) const {
    more.insert(more.end(), {"--mix", folder_.path("mix.wav"), "--stems", folder_.path("stems")});
    return run_entry(verify_main, more);
  }

  TemporaryFolder folder_;
};

TEST_F(FolderProof, TellsWhereTheWorstSampleIs) {
  write_stem("a.wav", half(0));
  write_stem("b.wav", half(0));
  EXPECT_EQ(verify().status, 0);
  EXPECT_THAT(verify().out, HasSubstr("2 stems, 3000 frames from 0, 1000 Hz\n"));

  Channels off = half(0);
  off[1][1234] += 0.125;
  write_stem("b.wav", off);
  const auto failed = verify();
  EXPECT_EQ(failed.status, 1);
  EXPECT_THAT(failed.out,
              HasSubstr("channel 1: peak -999.0 dBFS at sample 0 (0.000 s), rms -999.0 dBFS\n"
                        "channel 2: peak -18.1 dBFS at sample 1234 (1.234 s), rms -52.8 dBFS\n"
                        "null residual: -18.1 dBFS  FAIL\n"));
  EXPECT_EQ(failed.err, "the stems do not add up to the mix\n");
  EXPECT_EQ(verify({"--threshold=-10"}).status, 0);
  EXPECT_THAT(verify({"--json"}).out, HasSubstr(R"("rms_dbfs": -52.8)"));
}

TEST_F(FolderProof, AnExcerptNeedsItsBeginning) {
  write_stem("a.wav", half(1500));
  write_stem("b.wav", half(1500));
  EXPECT_THAT(verify().err, HasSubstr("--excerpt-start SECONDS"));
  EXPECT_EQ(verify({"--excerpt-start", "1.5"}).status, 0);
  EXPECT_EQ(verify({"--excerpt-start", "99"}).status, 0) << "an excerpt ends with the mix at last";
  EXPECT_EQ(verify({"--excerpt-start", "1.4"}).status, 1);
}

TEST_F(FolderProof, RefusesWhatIsNoStemOfTheMix) {
  EXPECT_THAT(verify().err, HasSubstr("no stems in"));
  write_stem("a.wav", half(0));
  write_stem("b.wav", half(7));
  EXPECT_THAT(verify().err, HasSubstr("b.wav”: 2993 frames, where the others have 3000"));
  write_stem("b.wav", {half(0)[0]});
  EXPECT_THAT(verify().err, HasSubstr("1 channels, where the others have 2"));
}

}  // namespace
}  // namespace verdel::internal
