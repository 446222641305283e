#pragma once

#include <cstddef>

#include "signal/arrays.hpp"

namespace verdel::internal {

/// The stems added in map order. Every one has the given shape.
AudioArray sum_of(const StemMap& stems, std::size_t channels, std::size_t frames);

/// whole - part, in the storage of `part`. Shapes are equal.
AudioArray difference_from(AudioView whole, AudioArray part);

}  // namespace verdel::internal
