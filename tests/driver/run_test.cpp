#include "driver/run.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <map>
#include <sstream>

#include "driver/small_projects.hpp"
#include "inputs/audio_loading.hpp"

namespace verdel {
namespace {

using testing::Channels;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using testing::run_entry;
using testing::RunResult;
using testing::SmallProject;
namespace fs = std::filesystem;

Machine machine_with(std::size_t processors) {
  Machine machine = system_machine();
  machine.processors = [processors] { return processors; };
  return machine;
}

std::map<std::string, testing::FileBytes> files_in(const std::string& folder) {
  std::map<std::string, testing::FileBytes> files;
  for (const auto& entry : fs::directory_iterator(folder)) {
    files[entry.path().filename().string()] = testing::read_bytes(entry.path().string());
  }
  return files;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

struct ProgressStep {
  std::string phase;
  int completed = 0, total = 0;
  bool operator==(const ProgressStep&) const = default;
};

std::vector<ProgressStep> progress_of(const std::string& out) {
  std::vector<ProgressStep> steps;
  for (const std::string& line : lines_of(out)) {
    if (line.find("verdel-progress-json") == std::string::npos) continue;
    char phase[16] = "";
    ProgressStep step;
    std::sscanf(line.c_str(),
                R"(verdel-progress-json: {"v":1,"phase":"%15[a-z]","completed":%d,"total":%d})",
                phase, &step.completed, &step.total);
    step.phase = phase;
    EXPECT_EQ(line, R"(verdel-progress-json: {"v":1,"phase":")" + step.phase +
                        "\",\"completed\":" + std::to_string(step.completed) +
                        ",\"total\":" + std::to_string(step.total) + "}");
    steps.push_back(step);
  }
  return steps;
}

std::string without_progress(const std::string& out) {
  std::string rest;
  for (const std::string& line : lines_of(out)) {
    if (!line.starts_with("verdel-progress-json: ")) rest += line + "\n";
  }
  return rest;
}

class Machines : public ::testing::TestWithParam<SmallProject::Shape> {};

TEST_P(Machines, GetTheSameBytesAndLinesAndStemsThatAddUpToTheMix) {
  const SmallProject project({"Kick", "Snare", "Bässe"}, GetParam());
  std::string first_out;
  std::map<std::string, testing::FileBytes> first_files;
  for (const std::size_t processors : {1U, 2U, 4U, 8U}) {
    fs::remove_all(project.out());
    const RunResult result =
        run_entry(shipping_main, project.render({"--progress-json"}), machine_with(processors));
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    const auto files = files_in(project.out());
    if (processors == 1) {
      first_out = without_progress(result.out);
      first_files = files;
    }
    EXPECT_TRUE(files == first_files) << processors << " processors";
    EXPECT_EQ(without_progress(result.out), first_out) << processors << " processors";
  }
  ASSERT_EQ(first_files.size(), 3U);
  EXPECT_THAT(lines_of(first_out).back(), MatchesRegex("null residual: -[0-9.]+ dBFS  PASS"));

  std::vector<double> sum(project.mix()[1].size());
  for (const auto& [name, bytes] : first_files) {
    const LoadedAudio stem = load(project.out() + "/" + name);
    ASSERT_EQ(stem.audio.columns(), sum.size());
    for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += stem.audio.row(1)[i];
  }
  for (std::size_t i = 0; i < sum.size(); ++i) {
    // The mix file holds floats.
    ASSERT_NEAR(sum[i], static_cast<double>(static_cast<float>(project.mix()[1][i])), 1e-7);
  }
}

// A render in one piece, and one in intervals.
INSTANTIATE_TEST_SUITE_P(All, Machines,
                         ::testing::Values(SmallProject::Shape{},
                                           SmallProject::Shape{.frames = 61 * 2000, .sr = 2000}),
                         [](const auto& shape) {
                           return shape.param.sr == 2000 ? "InIntervals" : "InOnePiece";
                         });

TEST(Run, ProgressCountsEveryPhaseOfEveryStemAndChannel) {
  const SmallProject stereo({"a", "b", "c"});
  const auto steps = progress_of(
      run_entry(shipping_main, stereo.render({"--progress-json"}), machine_with(8)).out);
  ASSERT_EQ(steps.size(), 2U + 2U * (6U * 3U + 1U));
  EXPECT_EQ(steps.front(), (ProgressStep{"render", 0, 3}));
  EXPECT_EQ(steps.back(), (ProgressStep{"finalize", 0, 1}));
  for (std::size_t i = 1; i + 1 < steps.size(); ++i) {
    EXPECT_EQ(steps[i].phase, "render");
    EXPECT_EQ(steps[i].total, 37);
    EXPECT_GE(steps[i].completed, i == 1 ? 1 : steps[i - 1].completed);
  }
  EXPECT_EQ(steps[steps.size() - 2].completed, 37);

  const SmallProject mono({"a"}, {.channels = 1});
  std::vector<ProgressStep> expected = {{"render", 0, 2}};
  for (int done = 1; done <= 7; ++done) expected.push_back({"render", done, 7});
  expected.push_back({"finalize", 0, 1});
  const auto arguments = mono.render({"--any-channels", "--progress-json"});
  EXPECT_EQ(progress_of(run_entry(main, arguments).out), expected);
  EXPECT_EQ(progress_of(run_entry(main, mono.render({"--any-channels"})).out).size(), 0U);
}

TEST(Run, AnExcerptIsThatPartOfTheSource) {
  const SmallProject project({"a", "b"});
  ASSERT_EQ(run_entry(shipping_main, project.render()).status, 0);
  const LoadedAudio whole = load(project.out() + "/a.wav");

  const auto cut = project.render({"--excerpt-start", "0.5", "--excerpt-len", "0.25"});
  const RunResult result = run_entry(shipping_main, cut);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("demo excerpt: 0.5s + 0.25s (full-source context retained; "
                                    "trim on export)\nexcerpt-start-sample: 4000 of 8000\nraw "));
  const LoadedAudio part = load(project.out() + "/a.wav");
  ASSERT_EQ(part.audio.columns(), 2000U);
  for (std::size_t i = 0; i < 2000; ++i) {
    ASSERT_NEAR(part.audio.row(0)[i], whole.audio.row(0)[4000 + i], 1e-7);
  }
}

TEST(Run, OptionsThatNothingReadsChangeNothing) {
  const SmallProject project({"a", "b"});
  const RunResult plain = run_entry(main, project.render());
  const auto files = files_in(project.out());
  const RunResult odd =
      run_entry(main, project.render({"--sharpness", "9", "--tilt", "9", "--bound", "9",
                                      "--tail-hold", "1", "--tap-bound", "9", "--priority-share",
                                      "1", "--gain-model", "single-band", "--bands", "32"}));
  EXPECT_EQ(plain.status, 0);
  EXPECT_EQ(plain.out, odd.out);
  EXPECT_EQ(files, files_in(project.out()));
}

TEST(Run, LowResolutionNamesAreJudgedByTheLoadedStems) {
  const SmallProject project({"b", "a"});
  const RunResult known =
      run_entry(main, project.render({"--low-resolution", "b", "--low-resolution", "a"}));
  EXPECT_EQ(known.status, 0);
  EXPECT_THAT(known.out, HasSubstr("release-tail allocation\n32-band allocation: a, b\nafter "));

  fs::remove_all(project.out());
  const RunResult unknown = run_entry(main, project.render({"--low-resolution", "A"}));
  EXPECT_EQ(unknown.status, 2);
  EXPECT_THAT(unknown.out, HasSubstr("mix   mix.wav"));
  EXPECT_THAT(unknown.err,
              ::testing::EndsWith("verdel: error: --low-resolution requires an exact tap basename; "
                                  "unknown: A\n"));
  EXPECT_FALSE(fs::exists(project.out()));
}

TEST(Run, ASampleThatIsNotANumberIsNamedWithItsFile) {
  const double nan = std::nan("");
  const SmallProject project({"Kick", "Snare"});
  Channels bad_mix = project.mix();
  bad_mix[1][1234] = nan;
  testing::write_audio(project.path("bad.wav"), bad_mix, 8000);
  auto arguments = project.render();
  arguments[1] = project.path("bad.wav");
  RunResult result = run_entry(shipping_main, arguments);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "non-finite single-band mix\n" + project.path("bad.wav") +
                            ": sample 1234 of channel 1 is not a finite number (both counted from "
                            "0). Bounce it again.\n");

  Channels left = testing::hits(2, 1, 12000, 8000);
  Channels right = left;
  right[0][77] = std::numeric_limits<double>::infinity();
  project.write_tap("Hat.L.wav", left);
  project.write_tap("Hat.R.wav", right);
  result = run_entry(shipping_main, project.render());
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err,
              MatchesRegex("single-band taps must match the finite full mix\n.*taps/Hat.R.wav: "
                           "sample 77 of channel 0 is not a finite number.*\n"));
  EXPECT_FALSE(fs::exists(project.out()));

  fs::remove(project.path("taps/Hat.L.wav"));
  fs::remove(project.path("taps/Hat.R.wav"));
  project.write_tap("Mono.wav", left);
  result = run_entry(main, project.render({"--any-channels"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err,
              MatchesRegex("single-band taps must match the finite full mix\n.*taps/Mono.wav: 1 "
                           "channels, but the mix has 2. Bounce it like the mix.\n"));
}

TEST(Run, AFailureOfAChannelEndsTheRunWithNothingWritten) {
  const SmallProject project({"a", "b"});
  Machine machine = machine_with(4);
  machine.temporary_folder = [&] { return project.path("no such folder"); };
  const RunResult result = run_entry(shipping_main, project.render(), machine);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("no such folder"));
  EXPECT_EQ(std::ranges::count(result.err, '\n'), 1);
  EXPECT_FALSE(fs::exists(project.out()));
}

TEST(Run, StopsWhenAskedAndWhenItsReaderIsGone) {
  const SmallProject project({"a", "b"});
  const std::atomic<bool> stopped{true};
  const RunResult result =
      run_entry(shipping_main, project.render(), system_machine(), StopToken(stopped));
  EXPECT_EQ(result.status, kExitCancelled);
  EXPECT_FALSE(fs::exists(project.out()));

  std::FILE* full = std::fopen("/dev/full", "w");
  if (full == nullptr) GTEST_SKIP() << "this system has no device that refuses writing";
  RunContext context{.machine = system_machine(), .out = full, .err = std::tmpfile()};
  EXPECT_EQ(shipping_main(project.render({"--progress-json"}), context), kExitFailure);
  EXPECT_FALSE(fs::exists(project.out()));
  EXPECT_EQ(main({"--help"}, context), kExitFailure);
  std::fclose(context.err);
  std::fclose(full);
}

}  // namespace
}  // namespace verdel
