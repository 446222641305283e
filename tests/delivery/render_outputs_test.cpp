#include "delivery/render_outputs.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "delivery/delivery_files.hpp"
#include "inputs/audio_loading.hpp"
#include "support/errors.hpp"
#include "support/noise.hpp"

namespace verdel::internal {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr std::size_t kFrames = 20011;  // more than is read at once

// A square, silence, and noise; the mix is their sum, which is more than their floats can hold.
class RenderOutputsTest : public ::testing::Test {
 protected:
  RenderOutputsTest() : mix_(AudioArray::zeros(2, kFrames)) {
    for (const char* name : {"Bass", "Gërät", "A very long name"}) {
      auto stem = AudioArray::zeros(2, kFrames);
      if (*name == 'A') testing::fill_with_noise(stem.flat(), 3, -0.1, 0.1);
      for (std::size_t i = 0; i < stem.size(); ++i) {
        if (*name == 'B') stem.flat()[i] = i % 2 == 0 ? 0.5 : -0.5;
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
  std::string out(const std::string& name) const { return outputs_.out + "/" + name + ".wav"; }

  testing::TemporaryFolder folder_;
  AudioArray mix_;
  StemMap est_, taps_;
  RenderOutputs outputs_;
  std::vector<std::string> lines_;
};

TEST_F(RenderOutputsTest, PrintsItsLinesAndProvesTheFiles) {
  const auto verdict = deliver([this] { lines_.push_back("report"); });
  EXPECT_TRUE(verdict.proof.passed);
  EXPECT_NEAR(verdict.loudest_stem, -6.02, 0.01);
  EXPECT_THAT(
      lines_,
      ElementsAre("", "stem  Bass           peak   -6.0  rms   -6.0 dBFS   (tap  -26.0)",
                  "stem  Gërät          peak -999.0  rms -999.0 dBFS   (tap -999.0)",
                  HasSubstr("stem  A very long name peak  -20.0  rms  -24.8 dBFS   (tap  -44.8)"),
                  "report", "",
                  ::testing::MatchesRegex("null residual: -1[4-9][0-9]\\.[0-9] dBFS  PASS")));
  EXPECT_EQ(testing::contents_of(outputs_.out).size(), 3U);
}

// What may happen to a file between its writing and the proof, and what the run makes of it: what
// it throws, or what its last line is.
TEST_F(RenderOutputsTest, FindsEveryChangeOfAFile) {
  const std::string path = out("Gërät"), changed = "written stem verification failed for Gërät";
  outputs_.write_null = true;
  deliver();
  const std::string good = testing::bytes_of(path);
  auto last = Array2D<float>::zeros(2, kFrames);
  last.row(1)[kFrames - 1] = 0.5F;
  const auto view = last.view();
  const auto write = [&](int sr, RowsView<const float> audio) {
    return [=] { write_audio<float>(path, sr, audio); };
  };
  const std::pair<std::string, std::function<void()>> kCases[] = {
      {changed, write(48000, view)},
      {changed, write(44100, view.column_range(1, kFrames))},
      {changed, write(44100, {view.data(), 1, kFrames, kFrames})},
      {path, [&] { testing::write_bytes(path, good.substr(0, good.size() - 9)); }},
      {"No such file or directory", [&] { std::filesystem::remove(path); }},
      {"null residual: -6.0 dBFS  FAIL", write(44100, view)}};
  for (const auto& [outcome, change] : kCases) {
    const auto failure = testing::failure_of<std::runtime_error>([&, change = change] {
      const auto verdict = deliver(change);
      EXPECT_EQ(shallow_null_text(verdict, 22050, 44100),
                "-6.0 dBFS are left of the mix at sample 42060 (0.954 s) of channel 2, more than "
                "rounding leaves: a file does not hold what was written to it. Check the disk and "
                "render again.");
      const LoadedAudio left = load(out("_NULL_RESIDUAL"));
      EXPECT_NEAR(left.audio.row(1)[kFrames - 1], -0.5, 1e-7);
    });
    EXPECT_THAT(failure.empty() ? lines_.back() : failure, HasSubstr(outcome));
  }
}

TEST_F(RenderOutputsTest, ThresholdsAndLoudStems) {
  for (auto& x : mix_.flat()) x += 1e-3;
  outputs_.null_threshold = -100.0;
  EXPECT_EQ(deliver().proof.passed, false);
  EXPECT_EQ(lines_.back(), "null residual: -60.0 dBFS  FAIL");
  outputs_.null_threshold = -59.0;
  EXPECT_EQ(deliver().proof.passed, true);
  outputs_.null_threshold = -140.0;
  EXPECT_THROW(deliver(), RuntimeError);
  EXPECT_TRUE(lines_.empty());

  for (auto& x : mix_.flat()) x = 3.1;
  est_[0].audio = AudioArray::copy_of(mix_.view());
  est_[2].audio = AudioArray::zeros(2, kFrames);
  outputs_.est = views_of(est_);
  EXPECT_THAT(shallow_null_text(deliver(), 0, 44100),
              HasSubstr("peaks at +9.8 dBFS: 32-bit floats above +6.0 are too coarse. Turn the mix "
                        "and the taps down by 3.9 dB, so that no sample passes +6.0 dBFS"));
}

TEST_F(RenderOutputsTest, WhatCannotBeWrittenLosesNothing) {
  deliver();
  const auto deliver_to_full_disk = [&] {
    const FileSizeLimit limit(20000);
    deliver([] { ADD_FAILURE() << "a report without stems"; });
  };
  auto before = testing::contents_of(folder_.path());
  EXPECT_THROW(deliver_to_full_disk(), OSError);
  EXPECT_EQ(testing::contents_of(folder_.path()), before);

  outputs_.write_null = true;
  folder_.touch("new/out/_NULL_RESIDUAL.wav/");
  before = testing::contents_of(folder_.path());
  EXPECT_EQ(testing::failure_of<OSError>([this] { deliver(); }),
            "cannot write “" + out("_NULL_RESIDUAL") + "”: Is a directory");
  EXPECT_EQ(testing::contents_of(folder_.path()), before);
  EXPECT_TRUE(lines_.empty());
}

}  // namespace
}  // namespace verdel::internal
