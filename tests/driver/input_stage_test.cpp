#include "driver/input_stage.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "driver/small_projects.hpp"

namespace verdel {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using testing::run_entry;
using testing::RunResult;
using testing::SmallProject;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

class ExcerptRange : public ::testing::Test {
 protected:
  OutputRange range_of(std::optional<double> start, std::optional<double> length) {
    Options options;
    options.excerpt_start = start;
    options.excerpt_len = length;
    const verdel::Run run{.options = options,
                          .command_line = command_line_,
                          .machine = machine_,
                          .stop = {},
                          .lines = lines_};
    Mix mix;
    mix.audio = AudioArray::uninitialised(1, kFrames);
    mix.sr = kRate;
    return choose_output_range(run, mix);
  }
  void TearDown() override { std::fclose(file_); }

  static constexpr int kRate = 100;
  static constexpr std::size_t kFrames = 6000;  // a minute

 private:
  CommandLine command_line_{"verdel", entries_of(option_table())};
  Machine machine_ = system_machine();
  std::FILE* file_ = std::tmpfile();
  OutputLines lines_{file_};
};

TEST_F(ExcerptRange, SlidesBackAndNeverLeavesTheSource) {
  constexpr auto kAbsent = std::nullopt;
  const double nan = std::nan("");
  const struct {
    std::optional<double> start, length;
    std::size_t first, last;
  } kCases[] = {
      {kAbsent, kAbsent, 0, 6000}, {5.0, kAbsent, 0, 6000},  {5.0, 0.0, 0, 6000},
      {5.0, -1.0, 0, 6000},        {5.0, nan, 0, 6000},      {kAbsent, 10.0, 0, 1000},
      {0.0, 10.0, 0, 1000},        {55.0, 10.0, 5000, 6000}, {10.0, 90.0, 0, 6000},
      {-5.0, 10.0, 0, 1000},       {nan, 10.0, 0, 1000},     {kInfinity, 10.0, 5000, 6000},
      {10.0, 1e300, 0, 6000},      {10.0, 1e-9, 1000, 1000}, {0.005, 0.02, 0, 2},
      {0.015, 0.02, 2, 4},         {60.0, 1e-9, 6000, 6000},
  };
  for (const auto& c : kCases) {
    const OutputRange range = range_of(c.start, c.length);
    EXPECT_EQ(range.start, c.first) << c.start.value_or(0) << " " << c.length.value_or(0);
    EXPECT_EQ(range.stop, c.last) << c.start.value_or(0) << " " << c.length.value_or(0);
  }
  EXPECT_THROW(range_of(kAbsent, kInfinity), ValueError);
  EXPECT_THROW(range_of(1.0, 1e307), ValueError);
}

TEST(InputStage, TheMixIsJudgedBeforeTheTapsAndTheRoomBeforeAnyTapIsOpened) {
  const SmallProject project({"a", "b"});
  testing::write_bytes(project.path("taps/c.wav"), {'n', 'o'});
  Machine small = system_machine();
  small.physical_memory = [] { return std::uint64_t{1} << 20; };
  Machine full_disk = system_machine();
  full_disk.temporary_space = [] { return std::uint64_t{1} << 20; };

  RunResult result = run_entry(shipping_main, project.render(), small);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "this render needs about 1 GiB of working memory, but this Mac has 0 GiB; use fewer "
            "stems or a shorter bounce\n");
  EXPECT_THAT(result.out, EndsWith("mix   mix.wav  8000 Hz  2ch  1.5s\n"));
  result = run_entry(shipping_main, project.render(), full_disk);
  EXPECT_EQ(result.err, "VERDEL needs about 3 GiB free for temporary processing files\n");
  // Without the shipping profile nobody asks, and the broken tap is what stops the run.
  result = run_entry(main, project.render(), small);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("c.wav"));

  const SmallProject brief({"a"}, {.frames = 2047});
  result = run_entry(shipping_main, brief.render(), small);
  EXPECT_EQ(result.err,
            "the mix is only 2047 frames; VERDEL needs at least 2048 frames for this processing "
            "profile\n");
  result = run_entry(main, brief.render());
  EXPECT_EQ(result.err, "Candidate 14 needs at least 2048 audio frames\n");
  EXPECT_FALSE(std::filesystem::exists(brief.out()));

  const SmallProject mono({}, {.channels = 1});
  result = run_entry(shipping_main, mono.render());
  EXPECT_EQ(result.err,
            "the mix is 1-channel; VERDEL handles stereo files. Bounce the mix and the stems as "
            "stereo.\n");
  result = run_entry(main, mono.render({"--any-channels", "--allocation", "candidate14"}));
  EXPECT_EQ(result.err, "no tap files found\n");
}

TEST(InputStage, APairIsNamedAsOne) {
  const SmallProject project({"a"});
  testing::write_audio(project.path("Song.L.wav"), {project.mix()[0]}, 8000);
  testing::write_audio(project.path("song.r.WAV"), {project.mix()[1]}, 8000);
  auto arguments = project.render();
  arguments[1] = project.path("song.r.WAV");
  const RunResult result = run_entry(shipping_main, arguments);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("\nmix   Song (.L + .R)  8000 Hz  2ch  1.5s\n"));
}

}  // namespace
}  // namespace verdel
