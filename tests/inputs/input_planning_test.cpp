#include "inputs/input_planning.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "inputs/path_text.hpp"
#include "inputs/project_resolution.hpp"
#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {
namespace {

using Lines = std::vector<std::string>;

// "name: file file", the files by their basenames.
std::string text_of(const StemInput& input) {
  std::string text = input.name + ":";
  for (const std::string& file : input.files) text.append(" ").append(basename(file));
  return text;
}

// The bytes of a row in which \xNN is one, and a doubled backslash itself.
std::string unescaped(std::string text) {
  for (std::size_t i = text.find('\\'); i != text.npos; i = text.find('\\', i + 1)) {
    const bool is_byte = text[i + 1] == 'x';
    const int byte = is_byte ? std::stoi(text.substr(i + 2, 2), nullptr, 16) : '\\';
    text.replace(i, is_byte ? 4 : 2, 1, static_cast<char>(byte));
  }
  return text;
}

// The plan of a folder, or of the mix selected in it, or the failure.
std::string plan_of(const std::string& folder, const std::string& selected) {
  std::string plan;
  const std::string failure = testing::failure_of<ValueError>([&] {
    if (selected.empty()) {
      for (const StemInput& stem : plan_stem_inputs(folder)) plan += ", " + text_of(stem);
    } else {
      const StemInput mix = plan_mix_input(relative(folder, ".") + "/x/../" + selected);
      EXPECT_TRUE(mix.files.size() == 1 || dirname(mix.files[1]) == folder);
      plan = ", " + text_of(mix);
    }
  });
  return failure.empty() ? plan.substr(std::min<std::size_t>(plan.size(), 2)) : failure;
}

// The rows of tests/data/inputs/names.txt.
TEST(InputPlanning, GroupsNamesAndRefusesClashes) {
  std::size_t rows = 0;
  for (const std::string& row : testing::cases_of(VERDEL_TEST_DATA "/inputs/names.txt")) {
    if (row.empty() || row.front() == '#') continue;
    ++rows;
    const std::size_t first = row.find('|'), last = row.rfind('|');
    const testing::TemporaryFolder folder;
    folder.touch("t\xE9/");  // a folder may be called anything
    std::istringstream entries(row.substr(0, first)),
        selected(row.substr(first + 1, last - first - 1));
    for (std::string entry; entries >> entry;) folder.touch("t\xE9/" + unescaped(entry));
    std::string name;
    selected >> name;
    const std::string plan = plan_of(folder.path("t\xE9"), unescaped(name));
    const std::string outcome = unescaped(row.substr(std::min(last + 2, row.size())));
    EXPECT_TRUE(plan == outcome || (!name.empty() && plan.ends_with(outcome))) << row << "\n"
                                                                               << plan;
  }
  EXPECT_GT(rows, 18u);
  EXPECT_THROW(plan_stem_inputs("/no/such/folder"), OSError);
  EXPECT_EQ(plan_mix_input("no/../mix.wav").files, Lines{"no/../mix.wav"});
}

// A tree, its folders with a "/" at the end, and what is printed or the failure's text.
const std::pair<Lines, Lines> kProjects[] = {
    {{"stems/a.wav", "taps/b.WAV", "taps/.c.aif", "taps/.caf", "taps/n.txt", "mix/m.wav"},
     {"mix   mix/m.wav", "taps  taps  (3 files)", "out   out", ""}},
    {{"media/stems+mix/taps/", "mix/notes.txt", "master/m.flac"},
     {"mix   master/m.flac", "taps  media/stems+mix/taps  (0 files)", "out   media/stems+mix/out",
      ""}},
    {{"taps/", "Mix/a.wav", "Mix/b\xE9.wav", "Mix/._a.wav", "master/x.wav"},
     {"More than one file in Mix:\n  ._a.wav\n  a.wav\n  b\\xE9.wav\nLeave one, or pass --mix."}},
    {{"mix/m.wav", "tap/"}, {"Could not find a taps folder. Pass --taps."}},
    {{"taps/"}, {"Could not find the mix. Pass --mix."}}};

TEST(Resolve, FindsTapsAndMixOrSaysWhatIsMissing) {
  for (const auto& [tree, lines] : kProjects) {
    const testing::TemporaryFolder folder;
    for (const std::string& path : tree) folder.touch(path);
    ProjectPaths paths{.project = folder.path()};
    Lines printed;
    const auto failure = testing::failure_of<ValueError>([&] { printed = resolve(paths); });
    if (!failure.empty()) printed.push_back(failure);
    EXPECT_EQ(printed, lines);
  }
  const testing::TemporaryFolder folder;
  ProjectPaths given{
      .project = folder.path("x/.."), .mix = folder.path("y/m.wav"), .taps = folder.path("t/")};
  EXPECT_EQ(resolve(given), (Lines{"mix   y/m.wav", "taps  t  (0 files)", "out   t/out", ""}));
  EXPECT_EQ(*given.taps + *given.out, folder.path("t/") + folder.path("t/out"));
}

TEST(PathText, IsCutAndJoined) {
  const auto split = [](const char* name) {
    const auto [stem, extension] = split_extension(name);
    return stem + "|" + extension;
  };
  const std::pair<std::string, std::string> kTexts[] = {
      {dirname("a/b.wav") + "|" + basename("a/b.wav"), "a|b.wav"},
      {dirname("a//b/") + "|" + basename("a//b/"), "a//b|"},
      {dirname("//b") + "|" + basename("//b"), "//|b"},
      {split(".wav"), ".wav|"},
      {split("..wav"), "..wav|"},
      {split("a..wav"), "a.|.wav"},
      {join("a/", "b") + join("", "b") + join("a", "/b"), "a/bb/b"},
      {absolute("/a//b/./c/../d/") + absolute("/../.."), "/a/b/d/"},
      {relative("/a/b", "/a/b/") + relative("/abc", "/ab"), ".../abc"},
      {relative("/a/x", "/a/b/c"), "../../x"}};
  for (const auto& [text, expected] : kTexts) EXPECT_EQ(text, expected);
}

}  // namespace
}  // namespace verdel::internal
