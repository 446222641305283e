#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "cli/run_program.hpp"
#include "driver/small_projects.hpp"

// Runs that are ended from outside, and what they leave behind.
namespace verdel::internal {
namespace {

using ::testing::HasSubstr;
using testing::ProgramResult;
using testing::RunningProgram;
using testing::ProjectShape;
using testing::SmallProject;
namespace fs = std::filesystem;

constexpr const char* kOldStem = "a recording that an earlier run has left";
constexpr const char* kProgress = "verdel-progress-json: ";

std::set<std::string> names_in(const std::string& folder) {
  std::set<std::string> names;
  for (const auto& [name, bytes] : testing::contents_of(folder)) names.insert(name);
  return names;
}

/// A project, a folder for its scratch files, and what a run that nobody disturbs makes of it.
class Subject {
 public:
  explicit Subject(const std::vector<std::string>& names, const ProjectShape& shape)
      : project_(names, shape) {
    auto program = start();
    const ProgramResult result = program->wait();
    EXPECT_EQ(result.status, 0) << result.err;
    stems_ = testing::contents_of(project_.out());
    const auto lines = testing::lines_of(result.out);
    progress_lines_ = static_cast<std::size_t>(
        std::ranges::count_if(lines, [](const auto& line) { return line.starts_with(kProgress); }));
  }

  std::unique_ptr<RunningProgram> start(const std::string& prefix = {}) const {
    return std::make_unique<RunningProgram>(testing::ProgramRun{
        .program = "verdel-engine",
        .arguments = {"--mix", project_.mix_path(), "--taps", project_.path("taps"), "--out",
                      project_.out(), "--progress-json"},
        .environment = "TMPDIR=" + scratch_.path(),
        .prefix = prefix});
  }
  void put_old_stems_back() const {
    fs::remove_all(project_.out());
    fs::create_directory(project_.out());
    for (const auto& [name, bytes] : stems_) {
      testing::write_bytes(project_.out() + "/" + name, kOldStem);
    }
  }
  /// Reads on until a share of the run's progress lines has come.
  void run_until_line(double share, RunningProgram& program) const {
    const double lines = share * static_cast<double>(progress_lines_);
    for (double seen = 0; seen < lines && program.read_line();) {
      if (program.last_line().starts_with(kProgress)) ++seen;
    }
  }
  /// Waits until a share of the stems is new, every other time until the next one is being written.
  void run_until_written(double share, RunningProgram& program) const {
    const auto steps = static_cast<std::size_t>(share * 2.0 * static_cast<double>(stems_.size()));
    while (!program.has_ended()) {
      std::size_t fresh = 0, unfinished = 0;
      for (const auto& entry : fs::directory_iterator(project_.out())) {
        std::error_code gone;  // a name that was unfinished a moment ago
        const auto size = entry.file_size(gone);
        if (entry.path().extension() == ".part") {
          ++unfinished;
        } else if (!gone && size != std::string(kOldStem).size()) {
          ++fresh;
        }
      }
      if (2 * fresh + unfinished > steps) return;
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  }
  /// Every stem stands whole under its name, the old one or the new one, and nothing else does.
  void expect_whole_stems(bool unfinished_allowed) const {
    auto files = testing::contents_of(project_.out());
    if (unfinished_allowed) {
      std::erase_if(files, [](const auto& file) { return file.first.ends_with(".part"); });
    }
    for (const auto& [name, bytes] : stems_) {
      EXPECT_TRUE(files[name] == kOldStem || files[name] == bytes) << name;
    }
    EXPECT_EQ(files.size(), stems_.size());
  }

  const SmallProject& project() const { return project_; }
  const testing::TemporaryFolder& scratch() const { return scratch_; }
  const std::map<std::string, std::string>& stems() const { return stems_; }

 private:
  SmallProject project_;
  testing::TemporaryFolder scratch_;
  std::map<std::string, std::string> stems_;
  std::size_t progress_lines_ = 0;
};

Subject rendered_in_intervals() {
  return Subject({"Bass", "Kick", "Snare"}, {.frames = 61 * 500, .sr = 500});
}

Subject long_in_writing() {
  std::vector<std::string> names;
  for (char name = 'A'; name <= 'T'; ++name) names.emplace_back(1, name);
  return Subject(names, {.frames = 6000});
}

TEST(EndedRuns, LeaveWholeStemsAndNoScratchWheneverTheyEnd) {
  const bool is_long = std::getenv("VERDEL_LONG_TESTS") != nullptr;
  const int moments = is_long ? 200 : 12;
  const Subject intervals = rendered_in_intervals(), writing = long_in_writing();
  int ended = 0;
  for (int i = 0; i < moments; ++i) {
    SCOPED_TRACE("moment " + std::to_string(i) + " of " + std::to_string(moments));
    constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGKILL};
    const int first = kSignals[i % 4], second = kSignals[i / 4 % 3];
    // Two of three runs by their progress lines, and the rest by what they have written; the
    // moments of each signal are spread over the whole run.
    const bool by_line = i % 3 != 0;
    const double share = static_cast<double>(i * 7 % moments) / moments;
    const Subject& subject = by_line ? intervals : writing;
    subject.put_old_stems_back();
    auto program = subject.start();
    by_line ? subject.run_until_line(share, *program) : subject.run_until_written(share, *program);
    program->send(first);
    if (i % 5 < 2) program->send(second);
    const ProgramResult result = program->wait();
    if (result.signal != 0) {
      EXPECT_TRUE(result.signal == first || (i % 5 < 2 && result.signal == second));
      ++ended;
    } else {
      EXPECT_EQ(result.status, 0) << result.err;  // it was quicker than the signal
      EXPECT_EQ(testing::contents_of(subject.project().out()), subject.stems());
    }
    subject.expect_whole_stems(first == SIGKILL);
    if (first != SIGKILL) {
      EXPECT_THAT(names_in(subject.scratch().path()), ::testing::IsEmpty());
      continue;
    }
    // What is left takes up no space: directories, and perhaps a file that was about to lose its
    // name.
    for (const auto& [name, bytes] : testing::contents_of(subject.scratch().path())) {
      EXPECT_TRUE(bytes == "no file" || bytes.empty()) << name;
    }
    fs::remove_all(subject.scratch().path());
    fs::create_directory(subject.scratch().path());
    EXPECT_EQ(subject.start()->wait().status, 0);
    EXPECT_EQ(testing::contents_of(subject.project().out()), subject.stems());
  }
  EXPECT_GT(ended, moments / 2);
  std::printf("%d of %d runs ended by their signal%s\n", ended, moments,
              is_long ? "" : "; scripts/test --long takes 200");
}

TEST(EndedRuns, GoOnUnderNohup) {
  const Subject subject = rendered_in_intervals();
  subject.put_old_stems_back();
  auto program = subject.start("sh -c 'trap \"\" HUP; exec \"$@\"' sh");
  ASSERT_TRUE(program->read_line());
  program->send(SIGHUP);
  EXPECT_EQ(program->wait().status, 0);
  EXPECT_EQ(testing::contents_of(subject.project().out()), subject.stems());
}

TEST(EndedRuns, AReaderThatLeavesEarlyEndsThemBeforeAnythingIsWritten) {
  const Subject subject = rendered_in_intervals();
  subject.put_old_stems_back();
  const auto before = testing::contents_of(subject.project().out());
  auto program = subject.start();
  ASSERT_TRUE(program->read_line());
  program->stop_reading();
  const ProgramResult result = program->wait();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "cannot write to standard output: Broken pipe\n");
  EXPECT_EQ(testing::contents_of(subject.project().out()), before);
  EXPECT_THAT(names_in(subject.scratch().path()), ::testing::IsEmpty());
}

}  // namespace
}  // namespace verdel::internal
