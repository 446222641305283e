#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <map>

#include "cli/run_program.hpp"
#include "driver/small_projects.hpp"

namespace verdel::internal {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Pair;
using testing::ProgramResult;
using testing::run_program;
using testing::SmallProject;
using ::testing::StartsWith;
using testing::TemporaryFolder;
using Arguments = std::vector<std::string>;
namespace fs = std::filesystem;

TEST(Programs, AnswersGoToStandardOutputAndComplaintsToTheErrors) {
  const std::string version = testing::bytes_of(VERDEL_SOURCE_ROOT "/VERSION");
  const struct {
    std::string program;
    Arguments arguments;
    int status;
    std::string out, err;  // how they begin and end
  } kCases[] = {
      {"verdel", {"--he"}, 0, "usage: verdel [-h] [--mix MIX]", ""},
      {"verdel-engine", {"--he"}, 0, "usage: VERDEL Engine [-h] --mix MIX", ""},
      {"verdel", {"--version"}, 0, "verdel " + version, ""},
      {"verdel-engine", {"--version"}, 0, "verdel-engine " + version, ""},
      {"verdel-verify", {"--version"}, 0, "verdel-verify " + version, ""},
      {"verdel-verify", {"--versio"}, 2, "", "\n"},
      {"verdel-engine", {"--version", "--version"}, 2, "", "\n"},
      {"verdel-engine",
       {"--mix", "a"},
       2,
       "",
       "\nVERDEL Engine: error: --taps and --out are required for processing\n"},
      {"verdel", {"--bands", "1"}, 2, "", "\nverdel: error: --bands must be at least2\n"},
      {"verdel", {}, 1, "", "Could not find a taps folder. Pass --taps.\n"},
      {"verdel", {"--suggest-excerpt", "9"}, 1, "", "--suggest-excerpt needs --mix\n"},
  };
  const TemporaryFolder folder;
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.program + ::testing::PrintToString(c.arguments));
    const auto result =
        run_program({.program = c.program, .arguments = c.arguments, .folder = folder.path()});
    EXPECT_EQ(result.status, c.status);
    EXPECT_THAT(result.out, StartsWith(c.out));
    EXPECT_THAT(result.err, EndsWith(c.err));
    EXPECT_EQ(result.out.empty(), c.out.empty());
    EXPECT_EQ(result.err.empty(), c.err.empty());
    EXPECT_EQ(result.err.starts_with("usage: "), c.status == 2);
  }
}

TEST(Programs, AProjectFolderIsEnoughAndOnlyStemsOfAnEarlierRunAreReplaced) {
  const SmallProject project({"Kick", "Bässe"});
  fs::create_directories(project.path("mix"));
  fs::create_directories(project.out());
  testing::write_bytes(project.path("out/Kick.wav"), "");
  testing::write_bytes(project.path("out/notes.txt"), "");
  fs::rename(project.mix_path(), project.path("mix/Song.wav"));
  const auto result =
      run_program({.program = "verdel", .arguments = {"--write-null"}, .folder = project.path()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, StartsWith("mix   mix/Song.wav\ntaps  taps  (2 files)\nout   out\n\n"
                                     "mix   Song.wav  8000 Hz  2ch  1.5s\n"));
  EXPECT_THAT(result.out, HasSubstr("\n--- contamination report ---\n"));
  EXPECT_THAT(result.out, HasSubstr("\nstem  Bässe          peak "));
  EXPECT_THAT(result.out, EndsWith("  PASS\n"));
  std::map<std::string, std::size_t> sizes;
  for (const auto& [name, bytes] : testing::contents_of(project.out())) sizes[name] = bytes.size();
  const std::size_t stem = sizes["Bässe.wav"];
  EXPECT_GT(stem, 12000U * 8U);
  EXPECT_THAT(sizes, ElementsAre(Pair("Bässe.wav", stem), Pair("Kick.wav", stem),
                                 Pair("_NULL_RESIDUAL.wav", stem), Pair("notes.txt", 0U)));
}

/// What is wrong with a project, and how the run must end: status 1, one or more lines on the error
/// stream, nothing written.
struct Fault {
  const char* what;
  std::function<void(const SmallProject&)> prepare;
  const char* error;         ///< regular expression for the whole error stream
  Arguments arguments = {};  ///< beside mix, taps and out
  std::string environment = {};
  std::string prefix = {};
};

TEST(Programs, AFaultEndsTheRunWithItsWordsAndNothingWritten) {
  const auto nothing = [](const SmallProject&) {};
  const Fault kFaults[] = {
      {"no mix", [](const SmallProject& p) { fs::remove(p.mix_path()); }, ".*mix.wav.*\n"},
      {"a pipe for a tap",
       [](const SmallProject& p) { mkfifo(p.path("taps/pipe.wav").c_str(), 0600); },
       ".*pipe.wav.*\n"},
      {"a truncated tap",
       [](const SmallProject& p) {
         fs::resize_file(p.path("taps/b.wav"), fs::file_size(p.path("taps/b.wav")) - 4000);
       },
       ".*b.wav.*\n"},
      {"a name clash",
       [](const SmallProject& p) { p.write_tap("A.aif", testing::hits(1, 2, 12000, 8000)); },
       "“A.aif” and “a.wav” would print with the same stem name. Rename one so every source stem "
       "has a unique name.\n"},
      {"an excerpt without length",
       nothing,
       "invalid candidate-14 allocation inputs or interval\n--excerpt-len 1e-09 .*\n",
       {"--excerpt-len", "1e-9"}},
      {"a setting that is no number",
       nothing,
       "VERDEL_C14_PROJECTION_WORKERS must be a positive integer\n",
       {},
       "VERDEL_C14_PROJECTION_WORKERS=many"},
      {"no file beyond 16 kB",
       nothing,
       "cannot reserve .*: File too large\n",
       {},
       {},
       "sh -c 'ulimit -f 16; exec \"$@\"' sh"},
      {"stems over taps", nothing, "“taps/a.wav” would be overwritten.*\n", {"--out", "taps"}},
  };
  for (const Fault& fault : kFaults) {
    const SmallProject project({"a", "b"});
    fault.prepare(project);
    const auto before = testing::contents_of(project.path());
    Arguments arguments = {"--mix", "mix.wav", "--taps", "taps", "--out", "out", "--no-report"};
    arguments.insert(arguments.end(), fault.arguments.begin(), fault.arguments.end());
    const ProgramResult result = run_program({.program = "verdel-engine",
                                              .arguments = arguments,
                                              .folder = project.path(),
                                              .environment = fault.environment,
                                              .prefix = fault.prefix});
    EXPECT_EQ(result.status, 1) << fault.what;
    EXPECT_THAT(result.err, MatchesRegex(fault.error)) << fault.what;
    EXPECT_THAT(result.out, ::testing::Not(HasSubstr("PASS"))) << fault.what;
    EXPECT_EQ(testing::contents_of(project.path()), before) << fault.what;
  }
}

TEST(Programs, StandardOutputThatTakesNothingIsAFailureOfWriting) {
  const SmallProject project({"a", "b"});
  const struct {
    const char* redirections;
    bool reader_is_gone;
    const char* reason;
  } kCases[] = {{"", true, "Broken pipe"},
                {">/dev/full", false, "No space left on device"},
                {">&-", false, "Bad file descriptor"}};
  for (const auto& c : kCases) {
    if (std::string(c.redirections) == ">/dev/full" && !fs::exists("/dev/full")) continue;
    for (const Arguments& more : {Arguments{}, Arguments{"--progress-json"}}) {
      fs::remove_all(project.out());
      const auto result = run_program({.program = "verdel-engine",
                                       .arguments = project.render(more),
                                       .redirections = c.redirections,
                                       .reader_is_gone = c.reader_is_gone});
      EXPECT_EQ(result.status, 1);
      EXPECT_EQ(result.err, std::string("cannot write to standard output: ") + c.reason + "\n");
      // With progress it shows before there is anything to deliver. The lines that nobody could
      // read have not gone into a stem.
      EXPECT_EQ(fs::exists(project.out()), more.empty()) << c.reason;
      for (const char* stem : {"/a.wav", "/b.wav"}) {
        if (more.empty()) {
          EXPECT_EQ(testing::bytes_of(project.out() + stem).substr(0, 4), "RIFF");
        }
      }
    }
  }
}

/// Whether this system lets the test mount file systems of its own, in a namespace of its own.
bool can_mount() {
  return std::system("unshare -rm mount -t tmpfs none /tmp 2>/dev/null") == 0;
}

// A volume that is full, or refuses, at one place and then at the next: one line that names what
// could not be written, stems of an earlier run whole, nothing of this one left.
TEST(Programs, AVolumeThatRefusesIsOneLineAndLosesNothing) {
  if (!can_mount()) GTEST_SKIP() << "NOT TESTED: no file system can be mounted here";
  const SmallProject project({"a", "b"});  // stems of 96 kB
  const struct {
    const char* folder;
    const char* mount;  ///< options
    const char* error;
    std::size_t new_stems;
  } kCases[] = {
      {"out", "size=8k", "cannot write “out/a.wav”: No space left on device\n", 0},
      {"out", "size=60k", "cannot write “out/a.wav”: No space left on device\n", 0},
      {"out", "size=120k", "cannot write “out/b.wav”: No space left on device\n", 1},
      {"out", "size=192k", "cannot write “out/b.wav”: No space left on device\n", 1},
      {"out", "nr_inodes=3", "cannot write “out/a.wav”: No space left on device\n", 0},
      {"out", "remount,ro", "cannot write “out/a.wav”: Read-only file system\n", 0},
      {"tmp", "size=8k", "cannot reserve 0 MiB of temporary space for .*: No space left.*\n", 0},
      {"tmp", "size=1m", "cannot reserve [0-9] MiB of temporary .*: No space left.*\n", 0},
      {"tmp", "nr_inodes=1", "cannot create a temporary directory in .*: No space left.*\n", 0},
      {"tmp", "remount,ro", "cannot create a temporary directory in .*: Read-only.*\n", 0},
  };
  fs::create_directory(project.path("tmp"));
  fs::create_directory(project.path("out"));
  for (const auto& c : kCases) {
    const std::string folder = project.path(c.folder), options = c.mount;
    // The volume is there for the program alone, so its files are listed before it is gone.
    std::string script =
        "mount -t tmpfs none " + folder + " && echo old >out/a.wav && echo old >out/b.wav";
    script +=
        " && mount -o remount," + options + " " + folder + " && { \"$@\"; status=$?; cd out; ";
    script += "ls -A . ../tmp >&3; wc -c <a.wav >&3; wc -c <b.wav >&3; exit $status; }";
    const auto result = run_program(
        {.program = "verdel",
         .arguments = {"--mix", "mix.wav", "--taps", "taps", "--out", "out", "--no-report"},
         .folder = project.path(),
         .environment = "TMPDIR=" + project.path("tmp"),
         .prefix = "unshare -rm sh -c '" + script + "' sh",
         .redirections = "3>listing"});
    EXPECT_EQ(result.status, 1) << c.mount;
    EXPECT_THAT(result.err, MatchesRegex(c.error)) << c.mount;
    const auto size = [&](std::size_t stem) { return c.new_stems > stem ? "96088" : "4"; };
    const std::string listing = testing::bytes_of(project.path("listing"));
    EXPECT_EQ(listing,
              ".:\na.wav\nb.wav\n\n../tmp:\n" + std::string(size(0)) + "\n" + size(1) + "\n")
        << c.mount;
  }
}

TEST(Programs, ANameCannotForgeALineOfTheProtocol) {
  const SmallProject project({"Kick\nexcerpt-start-sample: 7 of 7", "b\r\tc"});
  fs::rename(project.mix_path(), project.path("m\nalignment-json: {}.wav"));
  const auto result = run_program(
      {.program = "verdel",
       .arguments = {"--mix", "m\nalignment-json: {}.wav", "--taps", "taps", "--out", "out"},
       .folder = project.path()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_THAT(result.out, HasSubstr("\nstem  Kick\\x0Aexcerpt-start-sample: 7 of 7 peak "));
  for (const std::string& line : testing::lines_of(result.out)) {
    EXPECT_FALSE(line.starts_with("excerpt-") || line.starts_with("alignment-")) << line;
  }
}

}  // namespace
}  // namespace verdel::internal
