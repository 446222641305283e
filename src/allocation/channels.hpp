#pragma once

#include "driver/model_stage.hpp"
#include "driver/run_context.hpp"
#include "signal/arrays.hpp"

namespace verdel {

/// Allocates the residual channel by channel, one or two at a time, and gives up the model. Returns
/// the stems of the output range, [channels][range], in stem order; if the range is the whole
/// source they take the storage of the model's sources row by row.
///
/// Threads: results are taken in channel order. The failure of the lowest channel is the one
/// thrown; channels not yet begun are dropped, one that runs finishes first.
StemMap render_channels(const Run& run, Model model, int sr, OutputRange range);

}  // namespace verdel
