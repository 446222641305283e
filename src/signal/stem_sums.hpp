#pragma once

#include <cstddef>

#include "signal/arrays.hpp"
#include "signal/levels.hpp"
#include "signal/song_storage.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// The stems added in map order. Every one has the given shape.
AudioArray sum_of(const StemMap& stems, std::size_t channels, std::size_t frames,
                  const StopToken& stop = {}, const SongStorage& storage = {});

/// whole - part, in the storage of `part`. Shapes are equal.
AudioArray difference_from(AudioView whole, AudioArray part);

/// The levels of whole - part. Shapes are equal.
Levels levels_of_difference(AudioView whole, AudioView part);

}  // namespace verdel::internal
