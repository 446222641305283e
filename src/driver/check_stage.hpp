#pragma once

#include "driver/options.hpp"
#include "driver/output_lines.hpp"
#include "support/machine.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// Looks at the mix and the taps that the options lead to, prints what was found, and returns
/// whether there is nothing to do. Errors as those of path resolution and loading; ValueError for a
/// mix that is neither mono nor stereo.
bool check_taps(const CheckOptions& options, const Machine& machine, OutputLines& lines,
                const StopToken& stop = {});

}  // namespace verdel::internal
