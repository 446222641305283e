#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "alignment/tap_alignment.hpp"
#include "signal/arrays.hpp"

namespace verdel::internal {

/// What of an input no model can take.
struct UnfitInput {
  std::optional<std::size_t> tap;  ///< which one; absent: the mix
  std::size_t channels = 0;        ///< its channels, if they are not as many as the mix has, else 0
  std::size_t channel = 0;         ///< of its first sample that is not a finite number,
  std::ptrdiff_t sample = 0;       ///< and that sample's place before the tap was moved
};

/// The first input that is at fault: the mix, then the taps in order; nothing if all are in order.
/// `lags` are the moves that the taps have been through, so that places are those of the inputs.
std::optional<UnfitInput> unfit_input(AudioView mix, const StemMap& taps,
                                      const std::vector<AppliedLag>& lags);

/// What is wrong with it and what to do, to stand behind the input's name and a colon. `channel`:
/// as its owner counts it.
std::string unfit_text(const UnfitInput& unfit, std::size_t mix_channels, std::size_t channel);

}  // namespace verdel::internal
