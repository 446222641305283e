#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "support/files.hpp"

// The rules of the house that a compiler does not check, read from the sources themselves.
namespace verdel::internal {
namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;

/// One file of src/. Its unit is "folder/name", the same for header and source.
struct SourceFile {
  std::string path, folder, unit, text;
};

const std::vector<SourceFile>& sources() {
  static const std::vector<SourceFile> files = [] {
    std::vector<SourceFile> found;
    for (const auto& [name, text] : testing::contents_of(VERDEL_SOURCE_ROOT "/src")) {
      const fs::path path = name, folder = path.parent_path();
      if (!name.ends_with(".cpp") && !name.ends_with(".hpp")) continue;
      found.push_back({name, folder.string(), (folder / path.stem()).string(), text});
    }
    return found;
  }();
  return files;
}

/// What stands behind the beginning of each line that begins so, up to the mark that ends it.
std::vector<std::string> behind(const std::string& begin, char end, const std::string& text) {
  std::vector<std::string> found;
  for (const std::string& line : testing::lines_of(text)) {
    if (!line.starts_with(begin)) continue;
    found.push_back(line.substr(begin.size(), line.find(end, begin.size()) - begin.size()));
  }
  return found;
}

TEST(House, FoldersIncludeOnlyLowerLayers) {
  const std::map<std::string, int> layer = {
      {"support", 0},   {"signal", 1},     {"inputs", 2},        {"alignment", 2},
      {"gain", 2},      {"allocation", 3}, {"contamination", 3}, {"chain", 3},
      {"delivery", 3},  {"excerpt", 3},    {"render", 4},        {"handover", 4},
      {"diagnosis", 4}, {"driver", 5},     {"embedding", 5},     {"apps", 6}};
  for (const SourceFile& file : sources()) {
    for (const std::string& header : behind("#include \"", '"', file.text)) {
      const std::string folder = fs::path(header).parent_path().string();
      EXPECT_TRUE(folder == file.folder || layer.at(folder) < layer.at(file.folder))
          << file.path << " includes " << header;
    }
  }
}

TEST(House, LibrariesAndThreadsStayInTheirUnits) {
  // How the text between the angle brackets begins, and who may write so.
  const std::pair<std::vector<std::string>, Names> kRules[] = {
      {{"sndfile.h"}, {"inputs/audio_file", "delivery/audio_file_writing"}},
      {{"fftw3"}, {"signal/transforms"}},
      {{"unicode/"}, {"support/unicode_text"}},
      {{"cairo"}, {"driver/png_canvas"}},
      {{"ebur128"}, {"handover/stem_meter"}},
      {{"nettle/"}, {"handover/sha256"}},
      {{"nlohmann/"}, {"handover/manifest"}},
      {{"thread"}, {"support/thread_pool", "support/machine", "support/temporary"}},
      {{"mutex", "shared_mutex", "condition_variable"},
       {"support/thread_pool", "support/temporary", "signal/transforms", "inputs/audio_file",
        "delivery/coordinated_float32", "support/scratch_pool", "allocation/interval_rendering",
        "allocation/channels"}},
      {{"future"}, {"support/thread_pool", "support/ordered_prefetch", "driver/end_signals"}},
  };
  for (const auto& [headers, units] : kRules) {
    Names users;
    for (const SourceFile& file : sources()) {
      for (const std::string& used : behind("#include <", '>', file.text)) {
        for (const std::string& begin : headers) {
          if (used.starts_with(begin)) users.insert(file.unit);
        }
      }
    }
    EXPECT_EQ(users, units) << "users of <" << headers.front() << "> against those allowed";
  }
}

TEST(House, OnlyDriverAndProgramsPrintOrExit) {
  for (const SourceFile& file : sources()) {
    if (file.folder == "driver" || file.folder == "apps") continue;
    for (const char* name :
         {"std::cout", "std::cerr", "std::clog", "std::exit(", "std::_Exit(", "::print(",
          "::println(", "printf(", "fputs(", "std::puts(", "putchar("}) {
      EXPECT_EQ(file.text.find(name), std::string::npos) << file.path << " uses " << name;
    }
  }
}

TEST(House, TheMapNamesEveryUnitAndNoOther) {
  Names named, units;
  const std::string map = testing::bytes_of(VERDEL_SOURCE_ROOT "/docs/architecture.md");
  for (const std::string& name : behind("| `", '`', map)) {
    if (name.ends_with(".cpp")) named.insert(name);
  }
  for (const SourceFile& file : sources()) {
    if (file.path.ends_with(".cpp")) units.insert(file.path);
  }
  EXPECT_EQ(named, units) << "left: docs/architecture.md; right: src/";
}

}  // namespace
}  // namespace verdel::internal
