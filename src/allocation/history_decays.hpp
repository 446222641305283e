#pragma once

#include <array>
#include <cmath>

#include "allocation/c14_constants.hpp"

namespace verdel::internal {

/// What each of C14_HISTORY_DELAYS weighs: the past fades exponentially.
using HistoryDecays = std::array<float, C14_HISTORY_DELAYS.size()>;

inline HistoryDecays history_decays(int sr) {
  HistoryDecays decays{};
  for (std::size_t i = 0; i < decays.size(); ++i) {
    const double seconds = static_cast<double>(C14_HISTORY_DELAYS[i] * C14_HOP) / sr;
    decays[i] = static_cast<float>(std::exp(-seconds / C14_HISTORY_TAU));
  }
  return decays;
}

}  // namespace verdel::internal
