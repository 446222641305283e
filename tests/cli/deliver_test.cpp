#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <filesystem>

#include "cli/run_program.hpp"
#include "delivery/audio_file_writing.hpp"
#include "driver/small_projects.hpp"
#include "inputs/audio_file.hpp"

namespace verdel::internal {
namespace {

using testing::run_program;
using testing::SmallProject;
namespace fs = std::filesystem;

/// The samples of a file as 32-bit integers, by a reader of somebody else's; empty without sox.
std::vector<std::int32_t> decoded_elsewhere(const std::string& path) {
  const testing::TemporaryFolder folder;
  const std::string command =
      "sox -D '" + path + "' -t s32 '" + folder.path("raw") + "' 2>/dev/null";
  if (std::system(command.c_str()) != 0) return {};
  const std::string bytes = testing::bytes_of(folder.path("raw"));
  std::vector<std::int32_t> samples(bytes.size() / sizeof(std::int32_t));
  std::copy_n(bytes.data(), bytes.size(), reinterpret_cast<char*>(samples.data()));
  return samples;
}

const BroadcastInfo kPlace{.description = "Ein Lied, Bässe laut",
                           .originator = "A desk",
                           .date = "2026-11-20",
                           .time = "10:11:12",
                           .time_reference = (std::uint64_t{5} << 32) + 7};

/// Puts the project's mix in integers in the place of that in floats.
void write_integer_mix(const SmallProject& project, SampleType samples) {
  const auto& mix = project.mix();
  auto integers = Array2D<std::int32_t>::uninitialised(mix.size(), mix.front().size());
  const double steps = samples == SampleType::kInteger16 ? 0x1p15 : 0x1p23;
  for (std::size_t c = 0; c < mix.size(); ++c) {
    for (std::size_t i = 0; i < mix[c].size(); ++i) {
      integers.row(c)[i] = static_cast<std::int32_t>(std::nearbyint(mix[c][i] * steps));
    }
  }
  AudioFileWriter writer(project.mix_path(), {.sr = 8000,
                                              .channels = mix.size(),
                                              .frames = mix.front().size(),
                                              .samples = samples,
                                              .broadcast = kPlace});
  writer.write(integers.view());
  writer.commit();
}

std::vector<std::string> deliver(const SmallProject& project, const std::string& to,
                                 const std::vector<std::string>& more) {
  std::vector<std::string> arguments = {
      "--mix", project.mix_path(), "--stems", project.out(), "--to", to};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

TEST(Deliver, FilesOfEveryFormatSumToTheMixForAnotherReader) {
  struct Case {
    std::optional<SampleType> mix;  // nothing: floats
    const char *bits, *format, *rounded;
  };
  const Case kCases[] = {{SampleType::kInteger24, "24", "wav", ""},
                         {SampleType::kInteger24, "24", "aiff", ""},
                         {SampleType::kInteger16, "24", "flac", ""},
                         {SampleType::kInteger16, "16", "wav", ""},
                         {SampleType::kInteger24, "16", "flac", "Mix.flac"},
                         {std::nullopt, "24", "wav", "Mix.wav"},
                         {std::nullopt, "16", "aiff", "Mix.aiff"}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(std::string(c.bits) + c.format + c.rounded);
    const SmallProject project({"Kick", "Bässe", "Hat"}, {.frames = 20001});
    if (c.mix) write_integer_mix(project, *c.mix);
    ASSERT_EQ(run_program({.program = "verdel-engine", .arguments = project.render()}).status, 0);
    const std::string to = project.path("to");
    const std::vector<std::string> options = {"--bits", c.bits, "--format", c.format};
    const auto done =
        run_program({.program = "verdel-deliver", .arguments = deliver(project, to, options)});
    EXPECT_EQ(done.status, 0);
    EXPECT_THAT(done.out, ::testing::HasSubstr("no stem clips\n\nsums to the mix exactly"));
    EXPECT_EQ(done.err, "");

    const std::string mix = *c.rounded == '\0' ? project.mix_path() : to + "/" + c.rounded;
    const auto target = decoded_elsewhere(mix);
    if (target.empty()) std::printf("NOT TESTED: no sox that reads %s\n", mix.c_str());
    std::vector<std::int32_t> sum(target.size());
    for (const char* stem : {"Kick", "Bässe", "Hat"}) {
      const std::string path = to + "/" + stem + "." + c.format;
      const auto samples = decoded_elsewhere(path);
      ASSERT_EQ(samples.size(), sum.size());
      for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += samples[i];
      if (c.mix && c.format == std::string("wav")) {
        EXPECT_EQ(AudioFile(path).broadcast_info(), kPlace);
      }
    }
    EXPECT_TRUE(sum == target);
    EXPECT_EQ(run_program({.program = "verdel-verify", .arguments = {"--mix", mix, "--stems", to}})
                  .status,
              0);

    // With any number of threads, and from a folder that was delivered before.
    for (const std::size_t processors : {1U, 3U}) {
      Machine machine = system_machine();
      machine.processors = [=] { return processors; };
      const std::string again = project.path("again" + std::to_string(processors));
      ASSERT_EQ(testing::run_entry(deliver_main, deliver(project, again, options), machine).status,
                0);
      EXPECT_TRUE(testing::contents_of(again) == testing::contents_of(to));
    }
  }
}

TEST(Deliver, FloatsKeepTheirBitsAndJsonTellsTheSameAsTheManifest) {
  const SmallProject project({"Kick", "Hat"});
  ASSERT_EQ(run_program({.program = "verdel-engine", .arguments = project.render()}).status, 0);
  const auto done =
      run_program({.program = "verdel-deliver",
                   .arguments = deliver(project, "to",
                                        {"--bits=32f", "--json", "--name={index} {stem} {bits}"}),
                   .folder = project.path()});
  EXPECT_EQ(done.status, 0);
  EXPECT_THAT(done.out,
              ::testing::StartsWith(R"({"to": "to", "sample_rate": 8000, "bits": "32f", )"));
  const std::string manifest = testing::bytes_of(project.path("to/manifest.json"));
  EXPECT_THAT(manifest, ::testing::HasSubstr(R"("file": "01 Hat 32f.wav",)"));
  EXPECT_THAT(manifest, ::testing::HasSubstr(R"("sums_exactly": false,)"));
  std::vector<double> rendered(24000), delivered(24000);
  EXPECT_EQ(AudioFile(project.path("out/Hat.wav")).read(rendered), 12000U);
  EXPECT_EQ(AudioFile(project.path("to/01 Hat 32f.wav")).read(delivered), 12000U);
  EXPECT_TRUE(rendered == delivered);
}

// A command in a project that has stems, more options, and a part of what the run complains of.
constexpr const char* kRefusals =
    R"(:|--to out|“out/a.wav” would be overwritten: it is the same file as the input
mkdir to; cp mix.wav to/old.flac|--to to|“to/old.flac” is there already and would be taken for a part of the delivery
mkdir to; ln ../mix.wav to/Mix.wav 2>/dev/null; ln mix.wav to/Mix.wav|--to to|“to/Mix.wav” would be overwritten
touch to|--to to|“to” is a file, but the stems are to be written into a folder of that name
mkdir -p to/a.wav|--to to|“to/a.wav” is a folder
:|--to to --bits 32f --format flac|FLAC and AIFF are delivered with 16 or 24 bits
:|--to to --name x|would both be called “x.wav”
:|--to to --bits 20|--bits takes one of 16, 24, 32f, not “20”
cp out/a.wav out/c.wav|--to to|the stems do not add up to the mix: they miss it by
head -c 50000 out/a.wav >out/b.wav|--to to|out/b.wav
sox out/a.wav out/b.wav trim 0.1 2>/dev/null|--to to|out/b.wav”: 11200 frames, where the mix has 12000
sox mix.wav -c 1 out/b.wav 2>/dev/null|--to to|out/b.wav”: 1 channels, where the mix has 2
mv loud.wav mix.wav|--to to|mix.wav” passes full scale at 1 sample, the first sample 77 (0.010 s) of channel 2, by up to 0.83 dB
ulimit -f 60; set -- env|--to to|File too large
)";

TEST(Deliver, WhatCannotBeHandedOverIsToldAndLeavesNothing) {
  if (std::system("command -v sox >/dev/null") != 0) std::printf("NOT TESTED: no sox\n");
  for (const std::string& line : testing::lines_of(kRefusals)) {
    SCOPED_TRACE(line);
    const auto parts = testing::parts_of(line, '|');
    if (parts[0].starts_with("sox") && std::system("command -v sox >/dev/null") != 0) continue;
    const SmallProject project({"a", "b"});
    ASSERT_EQ(run_program({.program = "verdel-engine", .arguments = project.render()}).status, 0);
    auto loud = project.mix();
    loud[1][77] = 1.1;
    testing::write_audio(project.path("loud.wav"), loud, 8000);
    const bool limits = parts[0].starts_with("ulimit");
    if (!limits) {
      ASSERT_EQ(std::system(("cd '" + project.path() + "'; " + parts[0]).c_str()), 0);
    }
    const auto before = testing::contents_of(project.path());
    std::vector<std::string> arguments = {"--mix", "mix.wav", "--stems", "out"};
    for (const auto& word : testing::parts_of(parts[1], ' ')) arguments.push_back(word);
    const auto result =
        run_program({.program = "verdel-deliver",
                     .arguments = arguments,
                     .folder = project.path(),
                     .prefix = limits ? "sh -c 'ulimit -f 60; exec \"$@\"' sh" : ""});
    EXPECT_EQ(result.status, result.err.starts_with("usage: ") ? 2 : 1);
    EXPECT_THAT(result.err, ::testing::HasSubstr(parts[2]));
    auto after = testing::contents_of(project.path());
    if (!before.contains("to")) after.erase("to");  // the folder itself may be there, and empty
    EXPECT_EQ(after, before);
  }
}

// What happens to a delivered folder, and what verdel-verify says of it afterwards.
constexpr const char* kChanges = R"(:|0|
printf x >>to/b.wav|1|to/b.wav” is not the file that was delivered: its SHA-256 is another
rm to/a.wav|1|to/a.wav” is missing
cp mix.wav to/c.wav|1|to/c.wav” is not one of the files that the folder's manifest names
cp to/Mix.wav mix.wav; printf '\001' | dd of=mix.wav bs=1 seek=20000 conv=notrunc 2>/dev/null|1|
sed -i.bak s/sums_exactly/sums_exactly_/ to/manifest.json|1|the stems do not add up to the mix
sed -i.bak 's/"file": "a.wav"/"file": "..\/out\/a.wav"/' to/manifest.json|1|cannot be followed: it names a file that is not in the folder
sed -i.bak 's/"frames"/"Frames"/' to/manifest.json|1|manifest.json” is damaged
sed -i.bak 's/"version": 1/"version": 2/' to/manifest.json|1|it is of another version
)";

TEST(Deliver, AFolderIsHeldAgainstItsManifest) {
  for (const std::string& line : testing::lines_of(kChanges)) {
    SCOPED_TRACE(line);
    const auto parts = testing::parts_of(line, '|');
    const SmallProject project({"a", "b"});
    ASSERT_EQ(run_program({.program = "verdel-engine", .arguments = project.render()}).status, 0);
    ASSERT_EQ(run_program({.program = "verdel-deliver",
                           .arguments = deliver(project, project.path("to"), {})})
                  .status,
              0);
    ASSERT_EQ(std::system(("cd '" + project.path() + "'; " +
                           line.substr(0, line.rfind('|', line.rfind('|') - 1)))
                              .c_str()),
              0);
    const auto result = run_program({.program = "verdel-verify",
                                     .arguments = {"--mix", "mix.wav", "--stems", "to"},
                                     .folder = project.path()});
    EXPECT_EQ(std::to_string(result.status), parts[parts.size() - 2]) << result.out << result.err;
    EXPECT_THAT(result.err, ::testing::HasSubstr(parts.back()));
  }
}

}  // namespace
}  // namespace verdel::internal
