#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <thread>

#include "cli/run_program.hpp"
#include "driver/small_projects.hpp"

// Runs that are ended from outside, and what they leave behind.
namespace verdel::internal {
namespace {

using testing::contents_of;
using testing::RunningProgram;
using testing::SmallProject;
namespace fs = std::filesystem;

const std::string kOldStem = "a recording that an earlier run has left";

/// A project that is rendered in intervals, a folder for its scratch files, and the stems that an
/// undisturbed run makes.
struct Subject {
  SmallProject project{testing::parts_of("A B C D E F", ' '), {.frames = 61 * 500, .sr = 500}};
  testing::TemporaryFolder scratch;
  std::map<std::string, std::string> stems;
  std::size_t lines = 0;  ///< of an undisturbed run

  Subject() {
    const auto result = start()->wait();
    EXPECT_EQ(result.status, 0) << result.err;
    stems = contents_of(project.out());
    lines = testing::lines_of(result.out).size();
  }

  std::unique_ptr<RunningProgram> start() const {
    auto arguments = project.render({"--progress-json"});
    std::erase(arguments, "--no-report");
    return std::make_unique<RunningProgram>(
        testing::ProgramRun{.program = "verdel-engine",
                            .arguments = arguments,
                            .prefix = "env TMPDIR=" + scratch.path()});
  }
  std::unique_ptr<RunningProgram> start_on_old_stems() const {
    fs::remove_all(project.out());
    fs::create_directory(project.out());
    for (const auto& [name, bytes] : stems) {
      testing::write_bytes(project.out() + "/" + name, kOldStem);
    }
    return start();
  }
  /// How many of the files there are new, or on their way, as a share of the stems.
  double written() const {
    const fs::directory_iterator names(project.out());
    const auto count = std::count_if(begin(names), end(names), [](const auto& entry) {
      std::error_code gone;  // a name that was unfinished a moment ago
      return entry.file_size(gone) != kOldStem.size();
    });
    return static_cast<double>(count) / static_cast<double>(stems.size());
  }
  /// Every stem stands whole under its name, the old one or the new one, and nothing else does.
  void expect_whole_stems(bool unfinished_allowed) const {
    auto files = contents_of(project.out());
    if (unfinished_allowed) {
      std::erase_if(files, [](const auto& file) { return file.first.ends_with(".part"); });
    }
    for (const auto& [name, bytes] : stems) {
      EXPECT_TRUE(files[name] == kOldStem || files[name] == bytes) << name;
    }
    EXPECT_EQ(files.size(), stems.size());
  }
};

TEST(EndedRuns, LeaveWholeStemsAndNoScratchWheneverTheyEnd) {
  const int moments = std::getenv("VERDEL_LONG_TESTS") != nullptr ? 200 : 12;
  const Subject subject;
  int ended = 0;
  for (int i = 0; i < moments; ++i) {
    SCOPED_TRACE("moment " + std::to_string(i) + " of " + std::to_string(moments));
    constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGKILL};
    const int first = kSignals[i % 4], second = kSignals[i / 4 % 3];
    // Two of three runs by their lines, and the rest by what they have written; the moments of each
    // signal are spread over the whole run.
    const double share = static_cast<double>(i * 7 % moments) / moments;
    auto program = subject.start_on_old_stems();
    if (i % 3 != 0) {
      const double lines = share * static_cast<double>(subject.lines);
      for (int seen = 0; seen < lines && program->read_line(); ++seen) continue;
    }
    while (i % 3 == 0 && subject.written() <= share && !program->has_ended()) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    program->send(first);
    if (i % 5 < 2) program->send(second);
    const auto result = program->wait();
    if (result.signal != 0) {
      EXPECT_TRUE(result.signal == first || (i % 5 < 2 && result.signal == second));
      ++ended;
    } else {
      EXPECT_EQ(result.status, 0) << result.err;  // it was quicker than the signal
      EXPECT_EQ(contents_of(subject.project.out()), subject.stems);
    }
    subject.expect_whole_stems(first == SIGKILL);
    for (const auto& [name, bytes] : contents_of(subject.scratch.path())) {
      // What is left takes up no space: directories, perhaps a file about to lose its name.
      EXPECT_TRUE(first == SIGKILL && (bytes == "no file" || bytes.empty())) << name;
      fs::remove_all(subject.scratch.path(name));
    }
    if (first != SIGKILL) continue;
    EXPECT_EQ(subject.start()->wait().status, 0);
    EXPECT_EQ(contents_of(subject.project.out()), subject.stems);
  }
  EXPECT_GT(ended, moments / 2);
}

TEST(EndedRuns, EndWhereNobodyReadsAnyMore) {
  const Subject subject;
  auto program = subject.start_on_old_stems();
  ASSERT_TRUE(program->read_line());
  program->stop_reading();
  const auto result = program->wait();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "cannot write to standard output: Broken pipe\n");
  EXPECT_EQ(subject.written(), 0.0);
  subject.expect_whole_stems(false);
  EXPECT_TRUE(fs::is_empty(subject.scratch.path()));
}

}  // namespace
}  // namespace verdel::internal
