#pragma once

#include <cstddef>
#include <vector>

namespace verdel::internal {

/// Periodic Hann window, w[n] = 0.5 - 0.5 cos(2 pi n / length): its shifted copies add up to a
/// constant, which overlap-add needs (Allen & Rabiner 1977).
std::vector<double> get_window(std::size_t length);

/// Symmetric Hann window, w[n] = 0.5 - 0.5 cos(2 pi n / (length - 1)), 0 at both ends.
std::vector<double> hanning(std::size_t length);

}  // namespace verdel::internal
