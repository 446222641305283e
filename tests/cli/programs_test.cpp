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
                                              .environment = fault.environment});
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

TEST(Programs, AReaderThatIsGoneIsAFailureOfWriting) {
  const SmallProject project({"a", "b"});
  for (const Arguments& more : {Arguments{}, Arguments{"--progress-json"}}) {
    fs::remove_all(project.out());
    const auto result = run_program(
        {.program = "verdel-engine", .arguments = project.render(more), .reader_is_gone = true});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "cannot write to standard output: Broken pipe\n");
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
