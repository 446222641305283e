#pragma once

#include <optional>
#include <string>
#include <vector>

#include "handover/manifest.hpp"
#include "inputs/input_planning.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// The stems in a folder, whoever wrote them.
struct DeliveredFolder {
  std::vector<StemInput> stems;      ///< at least one, in stem order or that of the manifest
  std::optional<Manifest> manifest;  ///< where verdel-deliver has left one
};

/// Finds the stems of a folder: those of its manifest, or else all audio but the null residual of a
/// render. ValueError for a folder without stems, and for audio that the manifest does not name.
DeliveredFolder delivered_folder(const std::string& folder, const StopToken& stop = {});

/// Holds every file that a folder's manifest names against its hash. ValueError for one that is
/// gone, RuntimeError for one that has changed.
void require_hashes(const std::string& folder, const Manifest& manifest,
                    const StopToken& stop = {});

}  // namespace verdel::internal
