#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "allocation/stem_projection.hpp"
#include "allocation/tail_candidates.hpp"

namespace verdel::internal {

/// Weight in 0 .. C14_TAIL_STRENGTH that moves each bin of a frame from endpoint 10 to endpoint 09;
/// one gate serves all stems.
///
/// A candidate opens it where endpoint 09 gave the stem clearly more than endpoint 10. Returns
/// whether any bin opens. `gate`: [Tile::kRow].
bool open_tail_gate(const std::vector<TailCandidate>& candidates, const FrameProjection& projected,
                    std::span<float> gate);

}  // namespace verdel::internal
