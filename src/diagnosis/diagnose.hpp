#pragma once

#include <vector>

#include "diagnosis/finding.hpp"
#include "signal/arrays.hpp"
#include "support/machine.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// Looks for what is wrong with taps, by themselves and against the mix, and returns what was
/// found, the gravest first, then in the order of the taps. The taps have the mix's shape, which is
/// mono or stereo, and are moved as a render would move them. Errors: Cancelled.
std::vector<Finding> diagnose(AudioView mix, StemMap& taps, int sr, const Machine& machine,
                              const StopToken& stop = {});

}  // namespace verdel::internal
