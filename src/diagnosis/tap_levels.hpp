#pragma once

#include <string>
#include <vector>

#include "diagnosis/finding.hpp"
#include "diagnosis/spectral_sums.hpp"

/// What taps say of themselves, without the mix.
namespace verdel::internal {

/// `silent`, `offset`, `clipped`, and sides of which one is silent, by the samples of a tap.
std::vector<Finding> level_findings(const std::string& name, StemView tap, int sr);

/// Whether both sides are the same; false for silence, and for other than two channels.
bool is_mono(StemView tap);

/// `bandlimited`: taps that end at a frequency above which the mix goes on.
std::vector<Finding> band_findings(const SpectralSums& sums, const std::vector<std::string>& names);

}  // namespace verdel::internal
