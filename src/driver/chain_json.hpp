#pragma once

#include <string>
#include <vector>

#include "chain/hear_chain.hpp"

namespace verdel::internal {

/// The finding as one JSON object, with a line break behind it; docs/chain.md tells its fields.
/// `taps`: their names.
std::string chain_json(const ChainFinding& finding, const std::vector<std::string>& taps, int sr);

}  // namespace verdel::internal
