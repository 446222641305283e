#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <map>

#include "driver/end_signals.hpp"
#include "driver/small_projects.hpp"
#include "driver/terminal_progress.hpp"
#include "inputs/audio_loading.hpp"
#include "signal/instruction_sets.hpp"
#include "support/machines.hpp"
#include "support/temporary_directory.hpp"

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace verdel::internal {
namespace {

using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using testing::hits;
using ::testing::KilledBySignal;
using testing::machine_with;
using testing::run_entry;
using testing::SmallProject;
namespace fs = std::filesystem;

std::size_t heap_in_use() {
#if defined(__GLIBC__) && !defined(VERDEL_SANITIZED)
  // What is resident says little: the arenas of ended threads come and go with their free memory.
  return mallinfo2().uordblks + mallinfo2().hblkhd;
#else
  return 0;
#endif
}

std::ptrdiff_t entries_in(const char* folder) {
  std::error_code none;
  return std::distance(fs::directory_iterator(folder, none), fs::directory_iterator());
}

// Renders in one piece and in intervals, again and again in one process, with their reports.
TEST(RepeatedRuns, GiveTheSameOnEveryMachineAndHoldNoMoreThanTheFirstOnes) {
  const auto best = best_instruction_set();
  struct Computer {
    std::size_t processors;
    InstructionSet set;
    std::optional<std::uint64_t> memory = {};
  };
  // In 64 KiB hardly one of the arrays stands; in 2 MB some do and others do not.
  const std::vector<Computer> computers = {{1, best},
                                           {4, InstructionSet::kBaseline, 1 << 16},
                                           {8, best, 2'000'000},
                                           {2, InstructionSet::kAvx2}};
  const std::size_t runs = std::getenv("VERDEL_LONG_TESTS") != nullptr ? 100 : 8;
  for (const auto& shape : {testing::ProjectShape{}, {.frames = 61 * 1000, .sr = 1000}}) {
    const SmallProject project({"Kick", "Snare", "Bässe"}, shape);
    auto arguments = project.render({"--low-resolution", "Kick", "--low-resolution", "Bässe"});
    std::erase(arguments, "--no-report");
    std::string out;
    std::map<std::string, std::string> files;
    std::ptrdiff_t descriptors = 0;
    std::size_t heap = 0;
    for (std::size_t run = 0; run < runs; ++run) {
      fs::remove_all(project.out());
      const auto [processors, set, memory] = computers[run % computers.size()];
      use_instruction_set(std::min(set, best));
      const auto result = run_entry(main, arguments, machine_with(processors, memory));
      EXPECT_EQ(result.status, 0) << result.err;
      if (run == 0) {
        out = result.out;
        files = testing::contents_of(project.out());
      }
      EXPECT_EQ(result.out, out);
      EXPECT_TRUE(testing::contents_of(project.out()) == files) << processors << name_of(set);
      if (run + 1 != computers.size()) continue;
      descriptors = entries_in("/dev/fd");
      heap = heap_in_use();
    }
    use_instruction_set(best);
    EXPECT_THAT(out, HasSubstr(" allocation\n32-band allocation: Bässe, Kick\nafter "));
    EXPECT_EQ(entries_in("/dev/fd"), descriptors);
    EXPECT_LE(heap_in_use(), heap + (64 << 10));
  }
}

TEST(Run, ProgressCountsEveryPhaseOfEveryStemAndChannel) {
  const auto step = [](const char* phase, std::size_t completed, std::size_t total) {
    return fmt::format(R"(verdel-progress-json: {{"v":1,"phase":"{}","completed":{},"total":{}}})",
                       phase, completed, total);
  };
  for (const std::size_t channels : {1U, 2U}) {
    const SmallProject project({"a", "b", "c"}, {.channels = channels});
    const auto arguments = project.render({"--any-channels", "--progress-json"});
    auto steps = testing::lines_of(run_entry(main, arguments, machine_with(8)).out);
    std::erase_if(steps, [](const auto& line) { return !line.starts_with("verdel-progress"); });
    const std::size_t total = 1 + channels * 6 * 3;
    EXPECT_EQ(steps.size(), total + channels + 1);
    steps.erase(std::unique(steps.begin(), steps.end()), steps.end());
    std::vector<std::string> expected = {step("render", 0, channels + 1)};
    for (std::size_t i = 1; i <= total; ++i) expected.push_back(step("render", i, total));
    expected.push_back(step("finalize", 0, 1));
    EXPECT_EQ(steps, expected);
  }
}

TEST(Run, AnExcerptSlidesBackAndNeverLeavesTheSource) {
  const SmallProject project({"a"}, {.channels = 1, .frames = 4000, .sr = 100});
  // start, length, what is printed of it, frames; halves of a sample go to the even one
  constexpr const char* kCases =
      "5|0||4000\n"
      "5|nan||4000\n"
      "-5|10|demo excerpt: 0.0s + 10s (full-source context retained; trim on export)|1000\n"
      "nan|10|excerpt-start-sample: 0 of 100|1000\n"
      "35|10.5|demo excerpt: 29.5s + 10.5s (full-source context retained; trim on export)|1050\n"
      "inf|10|excerpt-start-sample: 3000 of 100|1000\n"
      "10|1e300|excerpt-start-sample: 0 of 100|4000\n"
      "0.005|0.02|excerpt-start-sample: 0 of 100|2\n"
      "0.015|0.02|excerpt-start-sample: 2 of 100|2\n";
  for (const std::string& line : testing::lines_of(kCases)) {
    SCOPED_TRACE(line);
    const auto parts = testing::parts_of(line, '|');
    const auto result = run_entry(main, project.render({"--any-channels", "--excerpt-start",
                                                        parts[0], "--excerpt-len", parts[1]}));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out, HasSubstr(fmt::format("\n{}\n", parts[2])));
    EXPECT_EQ(result.out.find("excerpt-start") == std::string::npos, parts[2].empty());
    EXPECT_EQ(std::to_string(load(project.out() + "/a.wav").audio.columns()), parts[3]);
  }
}

TEST(Run, NamesAMovedTapInJson) {
  const SmallProject project({"a"}, {.frames = 12000, .sr = 1000});
  auto late = project.mix();
  for (auto& channel : late) std::rotate(channel.begin(), channel.end() - 20, channel.end());
  fs::remove(project.path("taps/a.wav"));
  project.write_tap("ä\"\\\n\t\x01\x1f\x7f\u0085\u2028\u202e.wav", late);
  const auto result = run_entry(shipping_main, project.render());
  EXPECT_THAT(
      result.out,
      HasSubstr(
          "\nalignment-json: {\"name\": \"ä\\\"\\\\\\n\\t\\u0001\\u001f\\u007f\\u0085\\u2028\\u202e"
          "\", \"lag\": -20}\nraw difference"));
}

TEST(Run, TellsAPersonHowLongItWillTakeOnceThatIsKnown) {
  EXPECT_EQ(progress_text("reading", -1.0, 9.0), "reading");
  EXPECT_EQ(progress_text("rendering", 0.02, 9.0), "rendering  2 %");
  EXPECT_EQ(progress_text("rendering", 0.5, 0.4), "rendering  50 %");
  EXPECT_EQ(progress_text("rendering", 0.25, 30.0), "rendering  25 %  1:30 left");
}

// A file of a project of the stems a, b and the pair H (its channels, frames, and a sample of the
// last channel; no channels: no audio), arguments, and the end of the error stream, after which
// nothing is written. P stands for the project.
TEST(Run, AFaultEndsItWithItsWordsAndNothingWritten) {
  for (const std::string& line : testing::cases_of(VERDEL_TEST_DATA "/cases/faults.txt")) {
    SCOPED_TRACE(line);
    const SmallProject project({"a", "b"});
    for (const char* side : {"H.L.wav", "H.R.wav"}) project.write_tap(side, {project.mix()[0]});
    const auto fault = testing::parts_of(line, '|');
    const std::string file = project.path(fault[1]);
    testing::write_bytes(file, "no");
    if (const std::size_t channels = std::stoul(fault[2]); channels > 0) {
      auto sound = hits(1, channels, std::stoul(fault[3]), 8000);
      if (sound.back().size() > 77) sound.back()[77] = std::stod(fault[4]);
      testing::write_audio(file, sound, 8000);
    }
    auto arguments = project.render();
    for (const auto& word : testing::parts_of(fault[5], ' ')) {
      if (!word.empty()) arguments.push_back(word);
    }
    const std::atomic<bool> stopped{fault[0].starts_with("stopped")};
    auto [status, out, err] = run_entry(
        fault[0].ends_with("main") ? main : shipping_main, arguments,
        fault[0].starts_with("small") ? machine_with(2, 1 << 20, 1UL << 40) : system_machine(),
        StopToken(stopped));
    if (const auto place = err.find(project.path()); place != std::string::npos) {
      err.replace(place, project.path().size(), 1, 'P');
    }
    std::replace(err.begin(), std::prev(err.end()), '\n', '~');
    EXPECT_THAT(err, ::testing::EndsWith(fault[6] + "\n"));
    EXPECT_EQ(err.starts_with("usage: "), status == 2);
    EXPECT_EQ(status, stopped ? 130 : fault[6].starts_with("verdel: ") ? 2 : 1);
    EXPECT_FALSE(fs::exists(project.out()));
  }
}

// A process whose run holds a scratch directory with a file in it when signals come.
[[noreturn]] void run(const std::string& folder, std::initializer_list<int> sent, bool listens) {
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGINT, SIG_DFL);  // a shell's background may have it ignored
  EndSignals signals;
  {
    const TemporaryDirectory scratch(folder, "scratch-");
    testing::write_bytes(scratch.path() + "/file", "x");
    for (const int signal : sent) kill(getpid(), signal);
    while (!listens) pause();
    while (!signals.token().requested() && *sent.begin() != SIGHUP) usleep(100);
  }
  signals.finish();
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  _exit(sigismember(&blocked, SIGINT) + sigismember(&blocked, SIGTERM));
}

TEST(Process, SignalsEndTheRunAndThenTheProcessWhetherItListensOrNot) {
  const testing::TemporaryFolder folder;
  for (const bool listens : {true, false}) {
    EXPECT_EXIT(run(folder.path(), {SIGTERM}, listens), KilledBySignal(SIGTERM), "");
    EXPECT_EXIT(run(folder.path(), {SIGINT, SIGHUP}, listens), KilledBySignal(SIGINT), "");
  }
  EXPECT_EXIT(run(folder.path(), {SIGHUP}, true), ExitedWithCode(0), "");
  EXPECT_TRUE(testing::contents_of(folder.path()).empty());
}

// Opens a file as a render opens a stem, prints beside it, and tells which of both was refused.
int print_beside_a_file(const std::vector<std::string>& arguments, RunContext& context) {
  const int file = open(arguments[0].c_str(), O_CREAT | O_RDWR, 0600);
  std::fputs("words", context.out);
  std::fputs("words", context.err);
  return write(file, "stem", 4) == 4 && std::fflush(context.out) != 0 ? 0 : 1;
}

TEST(Process, NoFileTakesThePlaceOfAStreamThatWasClosed) {
  const testing::TemporaryFolder folder;
  std::string program = "verdel", path = folder.path("stem");
  char* words[] = {program.data(), path.data(), nullptr};
  const auto run_without = [&](std::initializer_list<int> streams) {
    for (const int stream : streams) close(stream);
    _exit(run_process(print_beside_a_file, 2, words));
  };
  EXPECT_EXIT(run_without({STDOUT_FILENO}), ExitedWithCode(0), "");
  EXPECT_EXIT(run_without({STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}), ExitedWithCode(0), "");
  EXPECT_EQ(testing::bytes_of(path), "stem");
}

}  // namespace
}  // namespace verdel::internal
