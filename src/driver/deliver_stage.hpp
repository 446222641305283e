#pragma once

#include <cstddef>

#include "driver/options.hpp"
#include "driver/output_lines.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// Hands a folder of stems over as the options ask for it, on so many threads, and tells what was
/// rounded and that the sum holds. Errors as those of delivered_folder, refuse_overwriting,
/// plan_handover and hand_over; ValueError for audio in the target folder that is not of this
/// delivery.
void deliver_folder(const DeliverOptions& options, std::size_t workers, OutputLines& lines,
                    const StopToken& stop = {});

}  // namespace verdel::internal
