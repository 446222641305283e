#pragma once

#include <string>
#include <vector>

#include "diagnosis/finding.hpp"
#include "diagnosis/placing.hpp"

namespace verdel::internal {

/// What the mix says of the taps, when they lie where they belong: `polarity`, `sides` that are
/// swapped, `lag`, `fraction`, `drift`, `ambiguous`, `stranger`, `ride`, `curve`, `missing`.
/// `moves`: by how many samples a render would move each tap, positive: later.
std::vector<Finding> mix_findings(const Placing& placing, const std::vector<std::string>& names,
                                  const std::vector<bool>& left_out,
                                  const std::vector<std::ptrdiff_t>& moves);

}  // namespace verdel::internal
