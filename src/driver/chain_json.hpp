#pragma once

#include <string>

#include "chain/hear_chain.hpp"
#include "signal/arrays.hpp"

namespace verdel::internal {

/// The finding as one JSON object, with a line break behind it; docs/chain.md tells its fields.
std::string chain_json(const ChainFinding& finding, const StemMap& taps, int sr);

}  // namespace verdel::internal
