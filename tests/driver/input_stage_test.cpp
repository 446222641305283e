#include "driver/input_stage.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "driver/small_projects.hpp"

namespace verdel::internal {
namespace {

using ::testing::HasSubstr;
using testing::run_entry;
using testing::RunResult;
using testing::SmallProject;

TEST(ChooseOutputRange, SlidesBackAndNeverLeavesTheSource) {
  const CommandLine command_line("verdel", entries_of(option_table()));
  const Machine machine = system_machine();
  std::FILE* const file = std::tmpfile();
  OutputLines lines(file);
  Mix mix{};
  mix.audio = AudioArray::uninitialised(1, 6000);  // a minute
  mix.sr = 100;
  const auto range_of = [&](std::optional<double> start, std::optional<double> length) {
    Options options;
    options.excerpt_start = start;
    options.excerpt_len = length;
    return choose_output_range({options, command_line, machine, {}, lines}, mix);
  };
  constexpr auto kAbsent = std::nullopt;
  const double nan = std::nan("");
  const struct {
    std::optional<double> start, length;
    std::size_t first, last;
  } kCases[] = {
      {kAbsent, kAbsent, 0, 6000}, {5.0, kAbsent, 0, 6000},  {5.0, 0.0, 0, 6000},
      {5.0, -1.0, 0, 6000},        {5.0, nan, 0, 6000},      {kAbsent, 10.0, 0, 1000},
      {0.0, 10.0, 0, 1000},        {55.0, 10.0, 5000, 6000}, {10.0, 90.0, 0, 6000},
      {-5.0, 10.0, 0, 1000},       {nan, 10.0, 0, 1000},     {HUGE_VAL, 10.0, 5000, 6000},
      {10.0, 1e300, 0, 6000},      {0.005, 0.02, 0, 2},      {0.015, 0.02, 2, 4},
  };
  for (const auto& c : kCases) {
    const OutputRange range = range_of(c.start, c.length);
    EXPECT_EQ(range.start, c.first) << c.start.value_or(0) << " " << c.length.value_or(0);
    EXPECT_EQ(range.stop, c.last) << c.start.value_or(0) << " " << c.length.value_or(0);
  }
  EXPECT_THROW(range_of(kAbsent, HUGE_VAL), ValueError);
  EXPECT_THROW(range_of(1.0, 1e307), ValueError);
  EXPECT_THROW(range_of(60.0, 1e-9), ValueError);
  std::fclose(file);
}

TEST(InputStage, TheMixIsJudgedBeforeTheTapsAndTheRoomBeforeAnyTapIsOpened) {
  const SmallProject project({"a", "b"}), brief({"a"}, {.frames = 2047}), mono({}, {.channels = 1});
  testing::write_bytes(project.path("taps/c.wav"), "no");
  Machine small = system_machine(), full_disk = system_machine();
  small.physical_memory = [] { return std::uint64_t{1} << 20; };
  full_disk.temporary_space = [] { return std::uint64_t{1} << 20; };
  const auto failure = [](Entry entry, const SmallProject& of, const Machine& machine,
                          const std::vector<std::string>& more = {}) {
    const RunResult result = run_entry(entry, of.render(more), machine);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("mix   mix.wav  8000 Hz  "));
    EXPECT_FALSE(std::filesystem::exists(of.out()));
    return result.err;
  };
  EXPECT_EQ(failure(shipping_main, project, small),
            "this render needs about 1 GiB of working memory, but this Mac has 0 GiB; use fewer "
            "stems or a shorter bounce\n");
  EXPECT_THAT(failure(shipping_main, project, full_disk),
              ::testing::StartsWith("VERDEL needs about 3 GiB free for temporary processing files\n"
                                    "the temporary folder “"));
  Machine lost = system_machine();
  lost.temporary_folder = [] { return "/dev/fd/lost"; };
  EXPECT_THAT(failure(main, project, lost), HasSubstr("directory in “/dev/fd/lost”: "));
  // Without the shipping profile nobody asks, and the broken tap is what stops the run.
  EXPECT_THAT(failure(main, project, small), HasSubstr("c.wav"));
  EXPECT_EQ(failure(shipping_main, brief, small),
            "the mix is only 2047 frames; VERDEL needs at least 2048 frames for this processing "
            "profile\n");
  EXPECT_EQ(failure(main, brief, small), "Candidate 14 needs at least 2048 audio frames\n");
  EXPECT_EQ(failure(shipping_main, mono, small),
            "the mix is 1-channel; VERDEL handles stereo files. Bounce the mix and the stems as "
            "stereo.\n");
  EXPECT_EQ(failure(main, mono, small, {"--any-channels", "--allocation", "candidate14"}),
            "no tap files found\n");
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
}  // namespace verdel::internal
