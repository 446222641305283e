#pragma once

#include <optional>
#include <string>
#include <vector>

#include "driver/input_stage.hpp"
#include "signal/arrays.hpp"

namespace verdel::internal {

/// Which file the gain model cannot take, and why: the first sample of it that is not a finite
/// number, or its channel count. The mix is looked at first, then the taps in order; nothing if all
/// are in order. `plan` has one entry per tap. Positions are those of the files, since a tap with
/// such a sample has no finite energy and is never moved.
std::optional<std::string> unfit_input(const Mix& mix, const StemMap& taps,
                                       const std::vector<StemInput>& plan);

}  // namespace verdel::internal
