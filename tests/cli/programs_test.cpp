#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <map>
#include <regex>

#include "cli/run_program.hpp"
#include "driver/small_projects.hpp"

namespace verdel::internal {
namespace {

using ::testing::MatchesRegex;
using testing::run_program;
using testing::SmallProject;
using Arguments = std::vector<std::string>;
using Files = std::map<std::string, std::string>;
namespace fs = std::filesystem;

// A program and its arguments, the status, and what it says: for 0 all of standard output, else the
// end of the errors.
constexpr const char* kAnswers = R"(verdel|--version|0|VERSION
verdel-engine|--version|0|VERSION
verdel-verify|--version|0|VERSION
verdel-deliver|--version|0|VERSION
verdel-check|--version|0|VERSION
verdel|--he|0|HELP
verdel-engine|-h|0|HELP
verdel-verify|--help|0|HELP
verdel-verify|--versio|2|verdel-verify: error: missing required: --mix, --stems
verdel-engine|--version|--version|2|VERDEL Engine: error: missing required: --mix
verdel|--bands|1|2|verdel: error: --bands must be at least2
)";

TEST(Programs, AnswersGoToStandardOutputAndComplaintsToTheErrors) {
  const std::string version = testing::bytes_of(VERDEL_SOURCE_ROOT "/VERSION");
  const testing::TemporaryFolder folder;
  for (const std::string& line : testing::lines_of(kAnswers)) {
    SCOPED_TRACE(line);
    auto words = testing::parts_of(line, '|');
    std::string program = words[0], says = words.back() + "\n";
    const int status = std::stoi(words[words.size() - 2]);
    if (says == "HELP\n") says = testing::bytes_of(VERDEL_TEST_DATA "/help/" + program + ".txt");
    if (words.back() == "VERSION") says = program + " " + version;
    const auto result = run_program({.program = program,
                                     .arguments = {words.begin() + 1, words.end() - 2},
                                     .folder = folder.path()});
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, status == 0 ? says : "");
    EXPECT_THAT(result.err, ::testing::EndsWith(status == 0 ? "" : says));
    EXPECT_EQ(result.err.empty(), status == 0);
    EXPECT_EQ(result.err.starts_with("usage: "), status == 2);
  }
}

TEST(Programs, AProjectFolderIsEnoughAndNoNameForgesALineOfTheProtocol) {
  const SmallProject project({"Kick\nexcerpt-start-sample: 7 of 7", "Bässe"});
  fs::create_directories(project.path("mix"));
  fs::create_directories(project.out());
  testing::write_bytes(project.path("out/Bässe.wav"), "");
  testing::write_bytes(project.path("out/notes.txt"), "");
  fs::rename(project.mix_path(), project.path("mix/m\nalignment-json: {}.wav"));
  const auto result =
      run_program({.program = "verdel", .arguments = {"--write-null"}, .folder = project.path()});
  EXPECT_TRUE(result.status == 0 && result.err.empty()) << result.err;
  EXPECT_THAT(
      result.out,
      MatchesRegex("mix   mix/m\\\\x0Aalignment-json: \\{\\}.wav\ntaps  taps  \\(2 files\\)\n"
                   "out   out\n\nmix   m\\\\x0A.*  8000 Hz  2ch  1.5s\n.*\nstem  Bässe     "
                   "     peak .*\nstem  Kick\\\\x0Aexcerpt-start-sample: 7 of 7 peak .*\n--- "
                   "contamination report ---\n.*  PASS\n"));
  for (const std::string& line : testing::lines_of(result.out)) {
    EXPECT_FALSE(line.starts_with("excerpt-") || line.starts_with("alignment-")) << line;
  }
  auto files = testing::contents_of(project.path());
  for (const char* name : {"out/Bässe.wav", "out/_NULL_RESIDUAL.wav"}) {
    EXPECT_EQ(files[name].size(), files["out/Kick\nexcerpt-start-sample: 7 of 7.wav"].size());
  }
  EXPECT_TRUE(files.contains("out/notes.txt") && files.size() == 10U) << files.size();

  const auto misled =
      run_program({.program = "verdel", .arguments = {"--out", "taps"}, .folder = project.path()});
  EXPECT_EQ(misled.status, 1);
  EXPECT_THAT(misled.err, ::testing::HasSubstr("“taps/Bässe.wav” would be overwritten"));
  EXPECT_TRUE(testing::contents_of(project.path()) == files);
}

TEST(Programs, StreamsThatTakeNothingFailTheRunAndSpoilNoStem) {
  const SmallProject project({"a", "b"});
  ASSERT_EQ(run_program({.program = "verdel-engine", .arguments = project.render()}).status, 0);
  const auto stems = testing::contents_of(project.out());
  for (const auto& [redirections, reason] : Files{{"", "Broken pipe"},
                                                  {">/dev/full", "No space left on device"},
                                                  {">&- </dev/null", "Bad file descriptor"},
                                                  {">&- 2>&-", ""},
                                                  {"2>&- </dev/null", ""}}) {
    for (const Arguments& more : {Arguments{}, Arguments{"--progress-json"}}) {
      SCOPED_TRACE(redirections + ::testing::PrintToString(more));
      fs::remove_all(project.out());
      const auto result = run_program({.program = "verdel-engine",
                                       .arguments = project.render(more),
                                       .redirections = redirections,
                                       .reader_is_gone = redirections.empty()});
      const bool ends_well = redirections.starts_with("2");
      EXPECT_EQ(result.status, ends_well ? 0 : 1);
      EXPECT_EQ(result.err,
                reason.empty() ? "" : "cannot write to standard output: " + reason + "\n");
      // With progress it shows before there is anything to deliver.
      fs::create_directories(project.out());
      const auto written = testing::contents_of(project.out());
      EXPECT_TRUE(written == (ends_well || more.empty() ? stems : Files{}));
    }
  }
}

/// What a terminal shows of the bytes that it was sent: a line that is wiped is gone.
std::string shown(const std::string& bytes) {
  return std::regex_replace(bytes, std::regex("[^\n]*\r\x1b\\[K|\r"), "");
}

TEST(Programs, TheStageLineIsDrawnByVerdelAloneAndNeverMeetsALine) {
  const SmallProject project({"a", "b"});
  for (const std::string which : {"verdel", "verdel behind a pipe", "verdel-engine"}) {
    SCOPED_TRACE(which);
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_TRUE(terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    const std::string name = ptsname(terminal);
    testing::RunningProgram program(
        {.program = which.substr(0, which.find(' ')),
         .arguments = project.render(),
         .prefix = "env TERM=xterm",
         .redirections = (which.ends_with("pipe") ? "2>" : ">" + name + " 2>") + name});
    std::string drawn;
    char c;
    while (read(terminal, &c, 1) == 1) drawn += c;
    close(terminal);
    const auto result = program.wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(drawn.find("\x1b[2mreading the taps\x1b[0m\r\x1b[K") != std::string::npos,
              which == "verdel");
    EXPECT_EQ(drawn.empty(), which.ends_with("pipe"));
    EXPECT_THAT(shown(drawn) + result.out,
                MatchesRegex("mix  [^\x1b]*\nraw difference [^\x1b]*\nstem  b [^\x1b]*  PASS\n"));
  }
}

// A volume that is full, or refuses, at one place and then at the next: one line that names what
// could not be written, stems of an earlier run whole, nothing of this one left.
TEST(Programs, AVolumeThatRefusesIsOneLineAndLosesNothing) {
  // In a namespace of its own, where the system lets the test have one.
  const bool mounts = std::system("unshare -rm mount -t tmpfs none /tmp 2>/dev/null") == 0;
  if (!mounts) std::printf("NOT TESTED: no file system can be mounted here\n");
  const SmallProject project({"a", "b"});  // stems of 96 kB
  // What brings the volume, what fills it up, the error, and the size of the first stem then.
  constexpr const char* kCases =
      R"(mount -t tmpfs none out|mount -o remount,size=8k out|cannot write “out/a.wav”: No space left on device|4
mount -t tmpfs none out|mount -o remount,size=60k out|cannot write “out/a.wav”: No space left on device|4
mount -t tmpfs none out|mount -o remount,size=120k out|cannot write “out/b.wav”: No space left on device|96088
mount -t tmpfs none out|mount -o remount,size=192k out|cannot write “out/b.wav”: No space left on device|96088
mount -t tmpfs none out|mount -o remount,nr_inodes=3 out|cannot write “out/a.wav”: No space left on device|4
mount -t tmpfs none out|mount -o remount,ro out|cannot write “out/a.wav”: Read-only file system|4
:|ulimit -f 16|cannot write “out/a.wav”: File too large|4
)";
  for (const std::string& line : testing::lines_of(kCases)) {
    SCOPED_TRACE(line);
    const auto parts = testing::parts_of(line, '|');
    if (!mounts && parts[0] != ":") continue;
    // The volume is there for the program alone, so its files are listed before it is gone.
    const std::string script = "mkdir -p out tmp && " + parts[0] +
                               " && echo old >out/a.wav && echo old >out/b.wav && " + parts[1] +
                               " && { \"$@\"; status=$?; cd out; ls -A . ../tmp >&3; "
                               "wc -c <a.wav >&3; wc -c <b.wav >&3; exit $status; }";
    const auto result = run_program(
        {.program = "verdel",
         .arguments = {"--mix", "mix.wav", "--taps", "taps", "--out", "out", "--no-report"},
         .folder = project.path(),
         .prefix = std::string(mounts ? "unshare -rm " : "") + "env TMPDIR=$PWD/tmp sh -c '" +
                   script + "' sh",
         .redirections = "3>listing"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, MatchesRegex(parts[2] + "\n"));
    EXPECT_EQ(testing::bytes_of(project.path("listing")),
              ".:\na.wav\nb.wav\n\n../tmp:\n" + parts[3] + "\n4\n");
  }
}

// Arguments, a command in the project's folder, and what the run says of the place. The mix is no
// sound at all, so whatever is decoded first fails in other words.
constexpr const char* kChainPlaces = R"(--json a.json|touch a.json|“a.json” is there already
--look --picture a.SVG|ln -s none a.SVG|“a.SVG” is there already
--look --taps-to heard|mkdir heard; touch heard/Kick.wav|“heard/Kick.wav” is there already
--json a.svg --picture ./a.svg|:|--json and --picture would both write “./a.svg”
--json out/Kick.wav|:|--out and --json would both write “out/Kick.wav”
--look --json out/Kick.wav|:|/mix/Song.wav” is empty
--taps-to out/../out|mkdir out|--out and --taps-to would both write
--look --taps-to ./taps|:|“./taps” is the folder of the taps
--json a/b.json|touch a|cannot make the output folder “a”: Not a directory
--taps-to a/b|touch a|cannot make the output folder “a/b”: Not a directory
--picture /dev/fd/a.svg|:|cannot write “/dev/fd/a.svg”
--picture a.jpg|:|verdel-chain: error: --picture takes a name that ends in .svg or .png, not “a.jpg”
--picture svg|:|not “svg”
--json new/a.json --picture new/a.svg --taps-to new|:|/mix/Song.wav” is empty
)";

TEST(Programs, PlacesOfTheChainThatAreTakenAreToldBeforeAnythingIsDecoded) {
  for (const std::string& line : testing::lines_of(kChainPlaces)) {
    SCOPED_TRACE(line);
    const auto parts = testing::parts_of(line, '|');
    const testing::TemporaryFolder folder;
    for (const char* file : {"mix/Song.wav", "taps/Kick.flac", "taps/Hat.flac"}) folder.touch(file);
    ASSERT_EQ(std::system(("cd '" + folder.path() + "'; " + parts[1]).c_str()), 0);
    const auto before = testing::contents_of(folder.path());
    const auto result = run_program({.program = "verdel-chain",
                                     .arguments = testing::parts_of(parts[0], ' '),
                                     .folder = folder.path()});
    EXPECT_TRUE(result.status == 1 || result.err.starts_with("usage: ")) << result.status;
    EXPECT_THAT(result.err, ::testing::HasSubstr(parts[2]));
    EXPECT_EQ(testing::contents_of(folder.path()), before);
  }
}

}  // namespace
}  // namespace verdel::internal
