#include "driver/run.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <map>
#include <span>

#include "driver/small_projects.hpp"
#include "inputs/audio_loading.hpp"
#include "signal/instruction_sets.hpp"
#include "support/machines.hpp"

namespace verdel::internal {
namespace {

using testing::Channels;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using testing::machine_with;
using ::testing::MatchesRegex;
using testing::run_entry;
using testing::RunResult;
using testing::SmallProject;
namespace fs = std::filesystem;

/// The machine as a run sees it, and the copies of the kernels that it takes.
struct Computer {
  std::size_t processors;
  InstructionSet set;
};

/// One to eight processors with the best instruction set, and each lesser set.
std::vector<Computer> computers() {
  std::vector<Computer> all;
  for (const std::size_t processors : {1U, 2U, 4U, 8U}) {
    all.push_back({processors, best_instruction_set()});
  }
  for (const auto set : {InstructionSet::kBaseline, InstructionSet::kAvx2}) {
    if (set < best_instruction_set()) all.push_back({2, set});
  }
  return all;
}

RunResult render_on(const Computer& computer, const SmallProject& project) {
  fs::remove_all(project.out());
  use_instruction_set(computer.set);
  auto arguments = project.render();
  std::erase(arguments, "--no-report");
  auto result = run_entry(shipping_main, arguments, machine_with(computer.processors));
  use_instruction_set(best_instruction_set());
  return result;
}

constexpr const char* kProgress = "verdel-progress-json: ";

// A render in one piece, and one in intervals; both with their report.
TEST(Run, GivesTheSameOnEveryMachineAndStemsThatAddUpToTheMix) {
  for (const auto& shape : {SmallProject::Shape{}, {.frames = 61 * 1000, .sr = 1000}}) {
    const SmallProject project({"Kick", "Snare", "Bässe"}, shape);
    std::string first_out;
    std::map<std::string, std::string> first_files;
    for (const Computer& computer : computers()) {
      const auto result = render_on(computer, project);
      SCOPED_TRACE(fmt::format("{} processors, {}", computer.processors, name_of(computer.set)));
      ASSERT_EQ(result.status, 0) << result.err;
      EXPECT_EQ(result.err, "");
      const auto files = testing::contents_of(project.out());
      if (first_files.empty()) {
        first_out = result.out;
        first_files = files;
      }
      EXPECT_TRUE(files == first_files);
      EXPECT_EQ(result.out, first_out);
    }
    ASSERT_EQ(first_files.size(), 3U);
    EXPECT_THAT(first_out, ContainsRegex("\nnull residual: -[0-9.]+ dBFS  PASS\n$"));

    std::vector<double> sum(shape.frames);
    for (const auto& [name, bytes] : first_files) {
      const LoadedAudio stem = load(project.out() + "/" + name);
      ASSERT_EQ(stem.audio.columns(), sum.size());
      for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += stem.audio.row(1)[i];
    }
    const LoadedAudio mix = load(project.mix_path());
    for (std::size_t i = 0; i < sum.size(); ++i) ASSERT_NEAR(sum[i], mix.audio.row(1)[i], 1e-7);
  }
}

TEST(Run, ProgressCountsEveryPhaseOfEveryStemAndChannel) {
  const auto step = [](const char* phase, int completed, int total) {
    return std::string(kProgress) + "{\"v\":1,\"phase\":\"" + phase +
           "\",\"completed\":" + std::to_string(completed) + ",\"total\":" + std::to_string(total) +
           "}";
  };
  const auto steps_of = [](const RunResult& result) {
    auto lines = testing::lines_of(result.out);
    std::erase_if(lines, [](const std::string& line) { return !line.starts_with(kProgress); });
    return lines;
  };
  const SmallProject stereo({"a", "b", "c"});
  auto steps =
      steps_of(run_entry(shipping_main, stereo.render({"--progress-json"}), machine_with(8)));
  ASSERT_EQ(steps.size(), 2U + 2U * (6U * 3U + 1U));
  EXPECT_EQ(steps.front(), step("render", 0, 3));
  EXPECT_EQ(steps[steps.size() - 2], step("render", 37, 37));
  EXPECT_EQ(steps.back(), step("finalize", 0, 1));
  for (int completed = 1; const auto& line : std::span(steps).subspan(1, steps.size() - 2)) {
    while (completed < 37 && line != step("render", completed, 37)) ++completed;
    EXPECT_EQ(line, step("render", completed, 37)) << "never back";
  }

  const SmallProject mono({"a"}, {.channels = 1});
  std::vector<std::string> expected = {step("render", 0, 2)};
  for (int done = 1; done <= 7; ++done) expected.push_back(step("render", done, 7));
  expected.push_back(step("finalize", 0, 1));
  EXPECT_EQ(steps_of(run_entry(main, mono.render({"--any-channels", "--progress-json"}))),
            expected);
  EXPECT_TRUE(steps_of(run_entry(main, mono.render({"--any-channels"}))).empty());
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

TEST(Run, LowResolutionNamesAreJudgedByTheLoadedStems) {
  const SmallProject project({"b", "a"});
  RunResult result = run_entry(main, project.render({"--low-resolution", "A"}));
  EXPECT_EQ(result.status, 2);
  EXPECT_THAT(result.out, HasSubstr("mix   mix.wav"));
  EXPECT_FALSE(fs::exists(project.out()));
  result = run_entry(main, project.render({"--low-resolution", "b", "--low-resolution", "a"}));
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(result.out, HasSubstr("release-tail allocation\n32-band allocation: a, b\nafter "));
}

TEST(Run, ASampleThatIsNotANumberIsNamedWithItsFile) {
  const SmallProject project({"Kick", "Snare"});
  const auto expect_failure = [&](Entry entry, const auto& arguments, const std::string& words,
                                  const std::string& where) {
    const RunResult result = run_entry(entry, arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, words + "\n" + project.path(where) + " Bounce it again.\n");
    EXPECT_FALSE(fs::exists(project.out()));
  };
  Channels bad_mix = project.mix();
  bad_mix[1][1234] = std::nan("");
  testing::write_audio(project.path("bad.wav"), bad_mix, 8000);
  auto arguments = project.render();
  arguments[1] = project.path("bad.wav");
  expect_failure(shipping_main, arguments, "non-finite single-band mix",
                 "bad.wav: sample 1234 of channel 1 is not a finite number (both counted from 0).");

  Channels side = testing::hits(2, 1, 12000, 8000);
  project.write_tap("Hat.L.wav", side);
  side[0][77] = std::numeric_limits<double>::infinity();
  project.write_tap("Hat.R.wav", side);
  expect_failure(shipping_main, project.render(), "single-band taps must match the finite full mix",
                 "taps/Hat.R.wav: sample 77 of channel 0 is not a finite number (both counted from "
                 "0).");

  fs::remove(project.path("taps/Hat.L.wav"));
  fs::rename(project.path("taps/Hat.R.wav"), project.path("taps/Mono.wav"));
  EXPECT_EQ(run_entry(main, project.render({"--any-channels"})).err,
            "single-band taps must match the finite full mix\n" + project.path("taps/Mono.wav") +
                ": 1 channel, but the mix has 2. Bounce it like the mix.\n");
}

TEST(Run, AFailureOnTheWayLeavesNothingWritten) {
  const SmallProject project({"a", "b"});
  Machine machine = machine_with(4);
  machine.temporary_folder = [&] { return project.path("no such folder"); };
  RunResult result = run_entry(shipping_main, project.render(), machine);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, MatchesRegex(".*no such folder[^\n]*\n"));
  const std::atomic<bool> stopped{true};
  result = run_entry(shipping_main, project.render(), system_machine(), StopToken(stopped));
  EXPECT_EQ(result.status, kExitCancelled);
  EXPECT_FALSE(fs::exists(project.out()));
}

}  // namespace
}  // namespace verdel::internal
