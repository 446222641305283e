#pragma once

#include <optional>
#include <string>
#include <vector>

namespace verdel::internal {

/// Where a run finds its inputs and leaves its stems. Whatever the user did not give is absent.
struct ProjectPaths {
  std::string project = ".";
  std::optional<std::string> mix = {}, taps = {}, out = {};
  double suggest_excerpt = 0.0;  ///< seconds; above 0 the mix alone is wanted
};

/// Paths of the files in a folder that end like audio, sorted; hidden ones count. Empty if there is
/// no such folder.
std::vector<std::string> audio_in(const std::string& folder);

/// Finds what is absent in the project folder and returns the lines that tell what was chosen.
/// Throws ValueError where something is neither given nor to be found, or found twice.
std::vector<std::string> resolve(ProjectPaths& paths);

}  // namespace verdel::internal
