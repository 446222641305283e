#include "delivery/render_outputs.hpp"

#include <gmock/gmock.h>

#include "delivery/delivery_files.hpp"
#include "inputs/audio_loading.hpp"
#include "support/audio_files.hpp"
#include "support/errors.hpp"
#include "support/noise.hpp"
#include "support/precision.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kFrames = 20011;  // more than is read at once

// A square, silence, and noise; the mix is their sum, which is more than their floats can hold.
class RenderOutputsTest : public ::testing::Test {
 protected:
  RenderOutputsTest() : mix_(AudioArray::zeros(2, kFrames)) {
    for (const char* name : {"Bass", "Gërät", "A very long name"}) {
      auto stem =
          *name == 'A' ? testing::noise_array(2, kFrames, 3) : AudioArray::zeros(2, kFrames);
      for (std::size_t i = 0; i < stem.size(); ++i) {
        if (*name == 'A') stem.flat()[i] *= 0.1;
        if (*name == 'B') stem.flat()[i] = i % 2 == 0 ? 0.5 : -0.5;
        mix_.flat()[i] += stem.flat()[i];
      }
      taps_.push_back({name, testing::rounded(stem.view())});
      for (auto& x : taps_.back().audio.flat()) x *= 0.1F;
      names_.emplace_back(name);
      est_.push_back(std::move(stem));
    }
  }

  DeliveryVerdict deliver(double threshold, const std::function<void()>& report = {}) {
    lines_.clear();
    CoordinatedStems rendered(names_, mix_.view(), threshold);
    auto rows = AudioArray::uninitialised(est_.size(), kFrames);
    for (const std::size_t channel : {0U, 1U}) {
      for (std::size_t i = 0; i < est_.size(); ++i) {
        std::ranges::copy(est_[i].row(channel), rows.row(i).begin());
      }
      rendered.take(channel, 0, rows.view());
    }
    StemReport compare;
    if (report) compare = [&](const StemViews&) { report(); };
    return write_render_outputs(
        {.out = folder_.path("new/out"),
         .write_null = true,
         .taps = views_of(taps_),
         .sr = 44100,
         .mix = mix_.view(),
         .null_threshold = threshold},
        std::move(rendered), [this](std::string_view line) { lines_.emplace_back(line); }, compare);
  }
  std::string out(const std::string& name) const {
    return folder_.path("new/out/" + name + ".wav");
  }

  testing::TemporaryFolder folder_;
  AudioArray mix_;
  std::vector<std::string> names_;
  std::vector<AudioArray> est_;
  StemMap taps_;
  std::vector<std::string> lines_;
};

TEST_F(RenderOutputsTest, PrintsItsLinesAndProvesTheFiles) {
  EXPECT_TRUE(deliver(-140.0, [this] { lines_.push_back("report"); }).proof.passed);
  EXPECT_THAT(lines_,
              ::testing::ElementsAre(
                  "", "stem  Bass           peak   -6.0  rms   -6.0 dBFS   (tap  -26.0)",
                  "stem  Gërät          peak -999.0  rms -999.0 dBFS   (tap -999.0)",
                  "stem  A very long name peak  -20.0  rms  -24.8 dBFS   (tap  -44.8)", "report",
                  "", ::testing::ContainsRegex("residual: -1[4-9].* dBFS  PASS")));
}

// What may happen to a file between its writing and the proof, and what the run makes of it: what
// it throws, or what its last line is.
TEST_F(RenderOutputsTest, FindsEveryChangeOfAFile) {
  const std::string path = out("Gërät"), changed = "written stem verification failed for Gërät";
  deliver(-140.0);
  const std::string good = testing::bytes_of(path);
  testing::Channels sound(2, std::vector<double>(kFrames));
  sound[1].back() = 0.5;
  const testing::Channels left = {sound[0]}, longer(2, std::vector<double>(kFrames + 1));
  const std::pair<std::string, std::function<void()>> kCases[] = {
      {changed, [&] { testing::write_audio(path, sound, 48000); }},
      {changed, [&] { testing::write_audio(path, longer); }},
      {changed, [&] { testing::write_audio(path, left); }},
      {path, [&] { testing::write_bytes(path, good.substr(0, good.size() - 9)); }},
      {"No such file or directory", [&] { std::filesystem::remove(path); }},
      {"null residual: -6.0 dBFS  FAIL", [&] { testing::write_audio(path, sound); }}};
  for (const auto& [outcome, change] : kCases) {
    const auto failure = testing::failure_of<std::runtime_error>([&, change = change] {
      EXPECT_EQ(shallow_null_text(deliver(-140.0, change), 22050, 44100),
                "-6.0 dBFS are left of the mix at sample 42060 (0.954 s) of channel 2, more than "
                "rounding leaves: a file does not hold what was written to it. Check the disk and "
                "render again.");
      EXPECT_NEAR(load(out("_NULL_RESIDUAL")).audio.row(1).back(), -0.5, 1e-7);
    });
    EXPECT_THAT(failure.empty() ? lines_.back() : failure, ::testing::HasSubstr(outcome));
  }
}

TEST_F(RenderOutputsTest, AShallowNullIsAVerdict) {
  for (auto& x : mix_.flat()) x += 1e-3;
  EXPECT_FALSE(deliver(-100.0).proof.passed);
  EXPECT_EQ(lines_.back(), "null residual: -60.0 dBFS  FAIL");
  EXPECT_TRUE(deliver(-59.0).proof.passed);

  for (auto& x : mix_.flat()) x = 3.1;
  est_[0] = AudioArray::copy_of(mix_.view());
  est_[2] = AudioArray::zeros(2, kFrames);
  EXPECT_THAT(shallow_null_text(deliver(-140.0), 0, 44100),
              ::testing::HasSubstr(
                  "peaks at +9.8 dBFS: 32-bit floats above +6.0 are too coarse. Turn "
                  "the mix down by 3.9 dB, so that no sample of a stem passes +6.0 dBFS, and"));
}

TEST_F(RenderOutputsTest, WhatCannotBeWrittenLosesNothing) {
  deliver(-140.0);
  auto before = testing::contents_of(folder_.path());
  limit_files_to(20000);
  EXPECT_THROW(deliver(-140.0, [] { ADD_FAILURE() << "a report without stems"; }), OSError);
  limit_files_to(RLIM_INFINITY);
  EXPECT_EQ(testing::contents_of(folder_.path()), before);

  std::filesystem::remove(out("_NULL_RESIDUAL"));
  folder_.touch("new/out/_NULL_RESIDUAL.wav/");
  before = testing::contents_of(folder_.path());
  EXPECT_EQ(testing::failure_of<OSError>([this] { deliver(-140.0); }),
            "cannot write “" + out("_NULL_RESIDUAL") + "”: Is a directory");
  EXPECT_TRUE(lines_.empty());
  EXPECT_EQ(testing::contents_of(folder_.path()), before);

  std::filesystem::remove_all(folder_.path("new"));
  for (auto& x : mix_.flat()) x += 1e-3;  // more than rounding: nothing may be written
  EXPECT_THROW(deliver(-140.0), RuntimeError);
  EXPECT_TRUE(std::filesystem::is_empty(folder_.path("new/out")));
}

}  // namespace
}  // namespace verdel::internal
