#pragma once

#include "driver/input_stage.hpp"
#include "driver/run_context.hpp"
#include "signal/arrays.hpp"

namespace verdel::internal {

/// Writes the stems of the output range, prints the report if it was asked for, and proves the
/// files against the mix. Throws RuntimeError if the proof fails.
void deliver(const Run& run, const Mix& mix, const StemMap& taps, const StemMap& est,
             OutputRange range);

}  // namespace verdel::internal
