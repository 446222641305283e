#include "inputs/project_resolution.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "inputs/folder.hpp"
#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

// Relative to the project folder, in the order in which they are tried.
constexpr std::array<std::string_view, 5> kTapsFolders = {"taps", "media/stems+mix/taps",
                                                          "stems+mix/taps", "Taps", "stems"};
constexpr std::array<std::string_view, 5> kMixFolders = {"mix", "media/stems+mix/mix",
                                                         "stems+mix/mix", "Mix", "master"};

std::string find_taps(const std::string& project) {
  for (const std::string_view candidate : kTapsFolders) {
    std::string folder = join(project, candidate);
    if (is_folder(folder)) return folder;
  }
  throw ValueError("Could not find a taps folder. Pass --taps.");
}

std::string find_mix(const std::string& project) {
  for (const std::string_view candidate : kMixFolders) {
    const std::vector<std::string> found = audio_in(join(project, candidate));
    if (found.size() == 1) return found.front();
    if (found.empty()) continue;
    std::string names;
    for (const std::string& path : found) names += "\n  " + printable(basename(path));
    throw ValueError(
        fmt::format("More than one file in {}:{}\nLeave one, or pass --mix.", candidate, names));
  }
  throw ValueError("Could not find the mix. Pass --mix.");
}

void complete_for_suggestion(ProjectPaths& paths, const std::string& project) {
  if (!paths.mix) throw ValueError("--suggest-excerpt needs --mix");
  if (paths.taps.value_or("").empty()) paths.taps = project;
  if (paths.out.value_or("").empty()) paths.out = project;
}

}  // namespace

std::vector<std::string> audio_in(const std::string& folder) {
  std::vector<std::string> paths;
  if (!is_folder(folder)) return paths;
  for (const std::string& entry : list_folder(folder)) {
    if (ends_like_audio(entry)) paths.push_back(join(folder, entry));
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

std::vector<std::string> resolve(ProjectPaths& paths) {
  const std::string project = absolute(paths.project);
  if (paths.suggest_excerpt > 0.0) {
    complete_for_suggestion(paths, project);
    return {};
  }
  if (!paths.taps) paths.taps = find_taps(project);
  if (!paths.mix) paths.mix = find_mix(project);
  if (!paths.out) paths.out = join(dirname(*paths.taps), "out");
  const auto shown = [&](const std::string& path) { return printable(relative(path, project)); };
  return {"mix   " + shown(*paths.mix),
          fmt::format("taps  {}  ({} files)", shown(*paths.taps), audio_in(*paths.taps).size()),
          "out   " + shown(*paths.out), ""};
}

}  // namespace verdel::internal
