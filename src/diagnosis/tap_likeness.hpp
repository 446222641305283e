#pragma once

#include <string>
#include <vector>

#include "diagnosis/finding.hpp"
#include "diagnosis/spectral_sums.hpp"

namespace verdel::internal {

struct Likenesses {
  std::vector<Finding> findings;
  std::vector<bool> left_out;  ///< taps that others say already, by tap
};

/// `duplicate`: two taps of one sound, whatever their level. `bus`: a tap that is the sum of
/// others.
Likenesses find_likenesses(const SpectralSums& sums, const std::vector<std::string>& names);

}  // namespace verdel::internal
