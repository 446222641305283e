#include "delivery/render_outputs.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "delivery_files.hpp"
#include "support/errors.hpp"

namespace verdel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// A sine, silence, and noise at full scale; the mix is their sum with one more last bit here and
// there than their floats can hold.
class RenderOutputsTest : public ::testing::Test {
 protected:
  RenderOutputsTest() : mix_(AudioArray::zeros(2, 4410)) {
    std::mt19937 random(3);
    std::uniform_real_distribution<double> value(-0.1, 0.1);
    for (const char* name : {"Bass", "Gërät", "A very long name"}) {
      auto stem = AudioArray::zeros(2, 4410);
      for (std::size_t i = 0; i < stem.size(); ++i) {
        if (*name == 'B') stem.flat()[i] = i % 2 == 0 ? 0.5 : -0.5;
        if (*name == 'A') stem.flat()[i] = value(random);
        mix_.flat()[i] += stem.flat()[i];
      }
      taps_.push_back({name, AudioArray::copy_of(stem.view())});
      for (auto& x : taps_.back().audio.flat()) x *= 0.1;
      est_.push_back({name, std::move(stem)});
    }
    outputs_ = {.out = folder_.path("new/out"),
                .est = views_of(est_),
                .taps = views_of(taps_),
                .sr = 44100,
                .mix = mix_.view(),
                .null_threshold = -140.0};
  }

  DeliveryVerdict deliver(const std::function<void()>& report = {}) {
    lines_.clear();
    return write_render_outputs(
        outputs_, [this](std::string_view line) { lines_.emplace_back(line); }, report);
  }
  std::string out(const std::string& name) const { return outputs_.out + "/" + name; }

  testing::TemporaryFolder folder_;
  AudioArray mix_;
  StemMap est_, taps_;
  RenderOutputs outputs_;
  std::vector<std::string> lines_;
};

TEST_F(RenderOutputsTest, PrintsItsLinesAndProvesTheFiles) {
  const auto verdict = deliver([this] { lines_.push_back("report"); });
  EXPECT_TRUE(verdict.passed);
  EXPECT_LT(verdict.null_peak, -140.0);
  EXPECT_THAT(
      lines_,
      ElementsAre("", "stem  Bass           peak   -6.0  rms   -6.0 dBFS   (tap  -26.0)",
                  "stem  Gërät          peak -999.0  rms -999.0 dBFS   (tap -999.0)",
                  HasSubstr("stem  A very long name peak  -20.0  rms  -24.8 dBFS   (tap  -44.8)"),
                  "report", "",
                  ::testing::MatchesRegex("null residual: -1[4-9][0-9]\\.[0-9] dBFS  PASS")));
  EXPECT_EQ(read_audio(out("Gërät.wav")).samples, std::vector<float>(2 * 4410, 0.0f));
  const auto bass = read_audio(out("Bass.wav"));
  EXPECT_EQ(bass.info.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
  EXPECT_EQ(bass.info.samplerate, 44100);
  EXPECT_FALSE(std::filesystem::exists(out("_NULL_RESIDUAL.wav")));
}

TEST_F(RenderOutputsTest, AnExactNullPassesAndAShallowOneFails) {
  for (auto& stem : est_) {
    for (auto& x : stem.audio.flat()) x = std::round(x * 256.0) / 256.0;
  }
  for (std::size_t i = 0; i < mix_.size(); ++i) {
    mix_.flat()[i] = est_[0].audio.flat()[i] + est_[2].audio.flat()[i];
  }
  EXPECT_EQ(deliver().null_peak, -999.0);
  EXPECT_EQ(lines_.back(), "null residual: -999.0 dBFS  PASS");

  for (auto& x : mix_.flat()) x += 1e-3;
  outputs_.null_threshold = -100.0;
  outputs_.write_null = true;
  const auto verdict = deliver();
  EXPECT_FALSE(verdict.passed);
  EXPECT_NEAR(verdict.null_peak, -60.0, 1e-6);
  EXPECT_EQ(lines_.back(), "null residual: -60.0 dBFS  FAIL");
  EXPECT_THAT(read_audio(out("_NULL_RESIDUAL.wav")).samples,
              ::testing::Each(::testing::FloatNear(1e-3f, 1e-9f)));

  outputs_.null_threshold = -140.0;
  EXPECT_THROW(deliver(), RuntimeError);
  EXPECT_TRUE(lines_.empty());
}

TEST_F(RenderOutputsTest, WhatStandsInTheWayIsFoundBeforeAnythingIsWritten) {
  std::filesystem::create_directories(out("A very long name.wav"));
  write_bytes(out("Bass.wav"), "a recording");
  try {
    deliver();
    ADD_FAILURE();
  } catch (const OSError& e) {
    EXPECT_EQ(e.what(), "cannot write “" + out("A very long name.wav") + "”: Is a directory");
  }
  EXPECT_EQ(bytes_of(out("Bass.wav")), "a recording");
  EXPECT_TRUE(lines_.empty());

  write_bytes(folder_.path("file"), "");
  for (const std::string name : {"file", "file/out"}) {
    outputs_.out = folder_.path(name);
    EXPECT_THROW(deliver(), OSError) << name;
  }
}

TEST_F(RenderOutputsTest, AFullDiskKeepsWhatIsComplete) {
  deliver();
  const std::string bass = bytes_of(out("Bass.wav"));
  int report_calls = 0;
  const auto deliver_to_full_disk = [&] {
    const FileSizeLimit limit(20000);
    deliver([&] { ++report_calls; });
  };
  EXPECT_THROW(deliver_to_full_disk(), OSError);
  EXPECT_EQ(report_calls, 0);
  EXPECT_EQ(bytes_of(out("Bass.wav")), bass);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(outputs_.out), {}), 3);
}

}  // namespace
}  // namespace verdel
