#pragma once

#include <optional>
#include <string>
#include <vector>

#include "handover/stem_meter.hpp"

namespace verdel::internal {

inline constexpr const char* kManifestName = "manifest.json";

struct ManifestFile {
  std::string file;    ///< its name in the manifest's folder
  std::string sha256;  ///< hexadecimal, in lower case
};

struct ManifestStem {
  std::string name;
  ManifestFile file;
  StemLevels levels;  ///< of no interest to those who read a manifest
};

/// What a delivered folder holds.
struct Manifest {
  int sr = 0;        ///< Hz
  std::string bits;  ///< "16", "24" or "32f"
  std::size_t frames = 0;
  bool sums_exactly = false;
  std::optional<ManifestFile> mix;  ///< where a rounded mix was delivered
  std::vector<ManifestStem> stems;
};

/// The manifest as a JSON object. A level that is no number, or silence's, is null. `bits` is a
/// number, or "32f".
std::string manifest_text(const Manifest& manifest);

/// What the manifest of a folder says; nothing if there is none, or a file of that name from
/// elsewhere. Throws ValueError for one that is damaged or of another version.
std::optional<Manifest> read_manifest(const std::string& folder);

}  // namespace verdel::internal
