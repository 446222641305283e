#include "delivery/render_outputs.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "delivery/delivery_files.hpp"
#include "inputs/audio_loading.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
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
  const LoadedAudio silent = load(out("Gërät.wav"));
  EXPECT_EQ(silent.sr, 44100);
  EXPECT_TRUE(std::ranges::equal(silent.audio.flat(), est_[1].audio.flat()));
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
  EXPECT_THAT(load(out("_NULL_RESIDUAL.wav")).audio.flat(),
              ::testing::Each(::testing::DoubleNear(1e-3, 1e-9)));

  outputs_.null_threshold = -140.0;
  EXPECT_THROW(deliver(), RuntimeError);
  EXPECT_TRUE(lines_.empty());
}

TEST_F(RenderOutputsTest, WhatStandsInTheWayIsFoundBeforeAnythingIsWritten) {
  folder_.touch("new/out/A very long name.wav/");
  testing::write_bytes(out("Bass.wav"), "a recording");
  const auto before = testing::contents_of(folder_.path());
  EXPECT_EQ(testing::failure_of<OSError>([this] { deliver(); }),
            "cannot write “" + out("A very long name.wav") + "”: Is a directory");
  for (const std::string name : {"new/out/Bass.wav", "new/out/Bass.wav/out"}) {
    outputs_.out = folder_.path(name);
    EXPECT_THROW(deliver(), OSError) << name;
  }
  EXPECT_EQ(testing::contents_of(folder_.path()), before);
  EXPECT_TRUE(lines_.empty());
}

TEST_F(RenderOutputsTest, AFullDiskKeepsWhatIsComplete) {
  deliver();
  const auto before = testing::contents_of(outputs_.out);
  const auto deliver_to_full_disk = [&] {
    const FileSizeLimit limit(20000);
    deliver([] { ADD_FAILURE() << "a report without stems"; });
  };
  EXPECT_THROW(deliver_to_full_disk(), OSError);
  EXPECT_EQ(testing::contents_of(outputs_.out), before);
}

}  // namespace
}  // namespace verdel::internal
