#include "driver/delivered_folder.hpp"

#include <algorithm>
#include <filesystem>
#include <set>

#include "delivery/verification.hpp"
#include "handover/sha256.hpp"
#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

std::vector<ManifestFile> files_of(const Manifest& manifest) {
  std::vector<ManifestFile> files;
  for (const ManifestStem& stem : manifest.stems) files.push_back(stem.file);
  if (manifest.mix) files.push_back(*manifest.mix);
  return files;
}

void require_no_stranger(const std::vector<StemInput>& found, const Manifest& manifest) {
  std::set<std::string> named;
  for (const ManifestFile& file : files_of(manifest)) named.insert(file.file);
  for (const StemInput& input : found) {
    for (const std::string& file : input.files) {
      if (named.contains(basename(file))) continue;
      throw ValueError(quoted_path(file) +
                       " is not one of the files that the folder's manifest names. Remove it, or "
                       "deliver anew.");
    }
  }
}

}  // namespace

DeliveredFolder delivered_folder(const std::string& folder, const StopToken& stop) {
  DeliveredFolder found{plan_stem_inputs(folder), read_manifest(folder)};
  if (found.manifest) {
    require_no_stranger(found.stems, *found.manifest);
    found.stems.clear();
    for (const ManifestStem& stem : found.manifest->stems) {
      found.stems.push_back({stem.name, {join(folder, stem.file.file)}});
    }
  } else {
    std::erase_if(found.stems, [&](const StemInput& stem) { return is_null_residual(stem, stop); });
  }
  if (found.stems.empty()) {
    throw ValueError("no stems in " + quoted_path(folder) + ". Pass the folder that holds them.");
  }
  return found;
}

void require_hashes(const std::string& folder, const Manifest& manifest, const StopToken& stop) {
  for (const ManifestFile& file : files_of(manifest)) {
    const std::string path = join(folder, file.file);
    std::error_code unknown;
    if (!std::filesystem::exists(path, unknown)) {
      throw ValueError(quoted_path(path) + " is missing; the folder's manifest names it.");
    }
    if (sha256_of_file(path, stop) == file.sha256) continue;
    throw RuntimeError(
        quoted_path(path) +
        " is not the file that was delivered: its SHA-256 is another than that in the "
        "manifest. Copy the folder again, or deliver anew.");
  }
}

}  // namespace verdel::internal
