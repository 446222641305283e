#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

// The rules of the house that a compiler does not check, read from the sources themselves.
namespace {

namespace fs = std::filesystem;

/// One file of src/. Its unit is "folder/name", the same for header and source.
struct SourceFile {
  std::string path, folder, unit, text;
};

std::string read(const fs::path& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

const std::vector<SourceFile>& sources() {
  static const std::vector<SourceFile> files = [] {
    const fs::path root = fs::path(VERDEL_SOURCE_ROOT) / "src";
    std::vector<SourceFile> found;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      const fs::path path = entry.path().lexically_relative(root);
      if (path.extension() != ".cpp" && path.extension() != ".hpp") continue;
      const std::string folder = path.parent_path().string();
      found.push_back(
          {path.string(), folder, (path.parent_path() / path.stem()).string(), read(entry.path())});
    }
    std::sort(found.begin(), found.end(),
              [](const SourceFile& a, const SourceFile& b) { return a.path < b.path; });
    return found;
  }();
  return files;
}

/// The first group of every match.
std::vector<std::string> all_matches(const std::string& text, const std::regex& pattern) {
  std::vector<std::string> found;
  for (std::sregex_iterator match(text.begin(), text.end(), pattern), end; match != end; ++match) {
    found.push_back((*match)[1].str());
  }
  return found;
}

TEST(House, FoldersIncludeOnlyLowerLayers) {
  const std::map<std::string, int> layer = {
      {"support", 0},    {"signal", 1},   {"inputs", 2},  {"alignment", 2}, {"gain", 2},
      {"allocation", 3}, {"delivery", 3}, {"excerpt", 3}, {"driver", 4},    {"apps", 5}};
  const std::regex own_header("#include \"([^\"]*)\"");
  std::size_t seen = 0;
  for (const SourceFile& file : sources()) {
    ASSERT_TRUE(layer.contains(file.folder)) << file.path << ": a folder without a layer";
    for (const std::string& header : all_matches(file.text, own_header)) {
      const std::string folder = fs::path(header).parent_path().string();
      ++seen;
      ASSERT_TRUE(layer.contains(folder)) << file.path << " includes " << header;
      EXPECT_TRUE(folder == file.folder || layer.at(folder) < layer.at(file.folder))
          << file.path << " includes " << header;
    }
  }
  EXPECT_GT(seen, 0u);
}

TEST(House, LibrariesAndThreadsStayInTheirUnits) {
  struct Rule {
    std::string headers;  ///< pattern of what stands between the angle brackets
    std::set<std::string> units;
  };
  const std::vector<Rule> rules = {
      {"sndfile\\.h.*", {"inputs/audio_file", "delivery/audio_file_writing"}},
      {"fftw3\\.h", {"signal/transforms"}},
      {"unicode/.*", {"support/unicode_text"}},
      {"thread", {"support/thread_pool", "support/machine"}},
      {"mutex|shared_mutex|condition_variable",
       {"support/thread_pool", "signal/transforms", "inputs/audio_file", "allocation/scratch_pool",
        "allocation/interval_rendering", "driver/channels"}},
      {"future", {"support/thread_pool", "support/ordered_prefetch", "driver/channels"}},
  };
  const std::regex system_header("#include <([^>]*)>");
  for (const Rule& rule : rules) {
    const std::regex headers(rule.headers);
    std::set<std::string> users;
    for (const SourceFile& file : sources()) {
      for (const std::string& header : all_matches(file.text, system_header)) {
        if (std::regex_match(header, headers)) users.insert(file.unit);
      }
    }
    EXPECT_EQ(users, rule.units) << "users of <" << rule.headers << "> against those allowed";
  }
}

TEST(House, OnlyDriverAndProgramsPrintOrExit) {
  const std::regex forbidden(
      "\\b((?:std|fmt)::(?:cout|cerr|clog|print|println|exit|_Exit|quick_exit)\\b"
      "|(?:f|v|vf)?printf(?=\\()|f?puts(?=\\())");
  for (const SourceFile& file : sources()) {
    if (file.folder == "driver" || file.folder == "apps") continue;
    EXPECT_THAT(all_matches(file.text, forbidden), testing::IsEmpty()) << file.path;
  }
}

TEST(House, TheMapNamesEveryUnitAndNoOther) {
  const std::string map = read(fs::path(VERDEL_SOURCE_ROOT) / "docs" / "architecture.md");
  const std::vector<std::string> named = all_matches(map, std::regex("`(\\w+/\\w+\\.cpp)`"));
  std::set<std::string> units;
  for (const SourceFile& file : sources()) {
    if (file.path.ends_with(".cpp")) units.insert(file.path);
  }
  EXPECT_EQ(std::set<std::string>(named.begin(), named.end()), units)
      << "left: docs/architecture.md; right: src/";
}

}  // namespace
