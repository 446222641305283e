#pragma once

#include <string>
#include <vector>
#include <verdel/verdel.hpp>

#include "chain/hear_chain.hpp"

namespace verdel::internal {

/// What was found, in the terms of the public header. `taps`: their names.
ChainResult chain_result(const ChainFinding& finding, const std::vector<std::string>& taps, int sr);

}  // namespace verdel::internal
