#pragma once

#include <vector>

#include "alignment/tap_alignment.hpp"
#include "driver/input_stage.hpp"
#include "driver/run_context.hpp"
#include "signal/arrays.hpp"

namespace verdel::internal {

/// The render that a request with the chain comes to.
Options render_options(const ChainOptions& chain);

/// Looks for the master chain, prints what was found ahead of all held lines, plays the taps
/// through it, and writes what the options ask for (see write_chain_files). Returns the moves of
/// the taps; none if they stand as they came.
///
/// Errors: OSError for files that cannot be written, or stand in the way; Cancelled.
std::vector<AppliedLag> hear_and_tell(const Run& run, const ChainOptions& options, const Mix& mix,
                                      StemMap& taps);

}  // namespace verdel::internal
