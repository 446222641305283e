#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>

#include "cli/run_program.hpp"
#include "driver/small_projects.hpp"

namespace verdel {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using testing::ProgramResult;
using testing::run_program;
using testing::SmallProject;
using ::testing::StartsWith;
using testing::TemporaryFolder;
using Arguments = std::vector<std::string>;
namespace fs = std::filesystem;

TEST(Programs, HelpGoesToStandardOutput) {
  for (const auto& [program, begin] : {std::pair{"verdel", "usage: verdel [-h] [--mix MIX]"},
                                       {"verdel-engine", "usage: VERDEL Engine [-h] --mix MIX"}}) {
    const auto result = run_program({.program = program, .arguments = {"--he"}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, StartsWith(begin));
  }
}

TEST(Programs, TheVersionIsAskedForInOneWayOnly) {
  const std::string version = testing::bytes_of(VERDEL_SOURCE_ROOT "/VERSION");
  for (const std::string program : {"verdel", "verdel-engine", "verdel-verify"}) {
    const auto result = run_program({.program = program, .arguments = {"--version"}});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, program + " " + version);
    for (const Arguments& other : {Arguments{"--versio"}, {"--version", "--version"}}) {
      EXPECT_EQ(run_program({.program = program, .arguments = other}).status, 2) << program;
    }
  }
}

TEST(Programs, ACommandLineThatCannotBeFollowedIsStatusTwo) {
  const struct {
    const char* program;
    Arguments arguments;
    const char* end;
  } kCases[] = {
      {"verdel-engine",
       {"--mix", "a"},
       "\nVERDEL Engine: error: --taps and --out are required for processing\n"},
      {"verdel",
       {"--excerpt-len", "x"},
       "\nverdel: error: --excerpt-len takes a number, not “x”\n"},
      {"verdel", {"--bands", "1"}, "\nverdel: error: --bands must be at least2\n"},
  };
  for (const auto& c : kCases) {
    const auto result = run_program({.program = c.program, .arguments = c.arguments});
    EXPECT_EQ(result.status, 2) << c.end;
    EXPECT_EQ(result.out, "") << c.end;
    EXPECT_THAT(result.err, AllOf(StartsWith("usage: "), EndsWith(c.end)));
  }
}

TEST(Programs, AProjectFolderIsEnough) {
  const SmallProject project({"Kick", "Bässe"});
  fs::create_directory(project.path("mix"));
  fs::rename(project.mix_path(), project.path("mix/Song.wav"));
  const auto result = run_program({.program = "verdel", .folder = project.path()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(result.out, StartsWith("mix   mix/Song.wav\ntaps  taps  (2 files)\nout   out\n\n"
                                     "mix   Song.wav  8000 Hz  2ch  1.5s\n"));
  EXPECT_THAT(result.out, HasSubstr("\n--- contamination report ---\n"));
  EXPECT_THAT(result.out, HasSubstr("\nstem  Bässe          peak "));
  EXPECT_THAT(result.out, EndsWith("  PASS\n"));
  EXPECT_TRUE(fs::exists(project.path("out/Kick.wav")));
  EXPECT_TRUE(fs::exists(project.path("out/Bässe.wav")));
}

TEST(Programs, ASuggestionNeedsNoTapsAndWritesNothing) {
  const SmallProject project({"Kick"});
  fs::remove_all(project.path("taps"));
  const auto before = testing::contents_of(project.path());
  const auto result =
      run_program({.program = "verdel-engine",
                   .arguments = {"--mix", "mix.wav", "--suggest-excerpt", "1", "--progress-json"},
                   .folder = project.path()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
            "mix   mix.wav  8000 Hz  2ch  1.5s\n"
            "excerpt-suggest: start-sample 0 length-samples 8000 rate 8000 bpm 0.00 bars 0 "
            "confidence 0.00\n");
  EXPECT_EQ(testing::contents_of(project.path()), before);
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
      {"no taps folder", [](const SmallProject& p) { fs::remove_all(p.path("taps")); },
       ".*taps.*\n"},
      {"a pipe for a tap",
       [](const SmallProject& p) { mkfifo(p.path("taps/pipe.wav").c_str(), 0600); },
       ".*pipe.wav.*\n"},
      {"a truncated tap",
       [](const SmallProject& p) {
         fs::resize_file(p.path("taps/b.wav"), fs::file_size(p.path("taps/b.wav")) - 4000);
       },
       ".*b.wav.*\n"},
      {"another length",
       [](const SmallProject& p) { p.write_tap("c.wav", testing::hits(1, 2, 12003, 8000)); },
       "c has a different length from the mix. Bounce every stem over the exact same range as the "
       "mix.\n",
       {"--strict-inputs"}},
      {"a name clash",
       [](const SmallProject& p) { p.write_tap("A.aif", testing::hits(1, 2, 12000, 8000)); },
       "“A.aif” and “a.wav” would print with the same stem name. Rename one so every source stem "
       "has a unique name.\n"},
      {"an excerpt without end",
       nothing,
       "--excerpt-len inf is too long.*\n",
       {"--excerpt-len", "inf"}},
      {"an excerpt without length",
       nothing,
       "invalid candidate-14 allocation inputs or interval\n",
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

TEST(Programs, WhatCannotBeFoundIsSaid) {
  const TemporaryFolder folder;
  for (const auto& [arguments, message] :
       {std::pair{Arguments{}, "Could not find a taps folder. Pass --taps.\n"},
        {Arguments{"--suggest-excerpt", "9"}, "--suggest-excerpt needs --mix\n"}}) {
    const auto result =
        run_program({.program = "verdel", .arguments = arguments, .folder = folder.path()});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, message);
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

// 39 taps that fail as soon as one of them is decoded, and a last one whose header does not fit.
TEST(Programs, TheLastTapsHeaderIsReadBeforeTheFirstTapIsDecoded) {
  const SmallProject project({});
  const auto sound = testing::test_sound(2, 12000);
  for (int tap = 10; tap < 49; ++tap) {
    const std::string path = project.path("taps/" + std::to_string(tap) + ".flac");
    testing::write_audio(path, sound, 8000, SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    std::string bytes = testing::bytes_of(path);
    testing::write_bytes(path, bytes.replace(bytes.size() / 2, 40, 40, '\0'));
  }
  project.write_tap("last.wav", sound, 48000);
  const auto run = [&] {
    return run_program(
        {.program = "verdel-engine", .arguments = project.render({"--progress-json"})});
  };
  EXPECT_EQ(run().err, "last: 48000 Hz but mix is 8000 Hz\n");
  EXPECT_THAT(run().out, EndsWith("\n\nmix   mix.wav  8000 Hz  2ch  1.5s\n"));
  project.write_tap("last.wav", sound);
  EXPECT_THAT(run().err, HasSubstr("/taps/10.flac” is damaged or cut short"));
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

TEST(Programs, StemsOfAnEarlierRunAreReplacedAndOtherFilesStay) {
  const SmallProject project({"a", "b"});
  fs::create_directory(project.out());
  testing::write_bytes(project.out() + "/a.wav", "old");
  testing::write_bytes(project.out() + "/notes.txt", "kept");
  const auto result =
      run_program({.program = "verdel", .arguments = project.render({"--write-null"})});
  EXPECT_EQ(result.status, 0) << result.err;
  const auto files = testing::contents_of(project.out());
  EXPECT_EQ(files.size(), 4U);
  EXPECT_EQ(files.at("notes.txt"), "kept");
  EXPECT_GT(files.at("b.wav").size(), 12000U * 8U);
  EXPECT_EQ(files.at("a.wav").size(), files.at("b.wav").size());
  EXPECT_EQ(files.at("_NULL_RESIDUAL.wav").size(), files.at("b.wav").size());
}

}  // namespace
}  // namespace verdel
