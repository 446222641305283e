#pragma once

#include <vector>

#include "alignment/tap_alignment.hpp"
#include "allocation/channels.hpp"
#include "driver/input_stage.hpp"
#include "driver/run_context.hpp"
#include "signal/arrays.hpp"

namespace verdel::internal {

/// Moves taps onto the mix and prints a line for each that moved.
std::vector<AppliedLag> align_taps(const Run& run, const Mix& mix, StemMap& taps);

/// Prints how far the sum of the taps lies from the mix, whose RMS level is given in dB.
void print_raw_difference(const Run& run, const Mix& mix, const StemMap& taps, double mix_rms);

/// Fits the shared gain to the whole mix and prints what it leaves. The model is of the part that a
/// render of the range looks at.
Model fit_model(const Run& run, const Mix& mix, const StemMap& taps, double mix_rms,
                OutputRange range);

/// Allocates what the model leaves, and prints progress where the run was asked for it.
StemMap allocate(const Run& run, Model model, int sr, OutputRange range);

}  // namespace verdel::internal
