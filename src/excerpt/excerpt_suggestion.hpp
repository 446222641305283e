#pragma once

#include <cstddef>

#include "signal/arrays.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// A stretch of the mix for a demonstration. Where no tempo was found, bpm, bars and confidence
/// are 0; where no number of bars fits, bars is 0.
struct ExcerptSuggestion {
  std::size_t start = 0, length = 0;  ///< samples; never past the mix's end
  double bpm = 0.0;                   ///< beats per minute
  int bars = 0;                       ///< whole bars of four beats
  double confidence = 0.0;            ///< 0.0 .. 1.0
};

/// About `target` seconds in whole bars, from a downbeat in the loudest part of the mix. Any doubt
/// (a short or silent mix, samples that are not finite) gives the wished length from the start.
///
/// Units: sr in Hz; target in seconds, any value. Memory: about 30 MB beyond a mix of 5 minutes at
/// 96 kHz. Errors: none but Cancelled.
ExcerptSuggestion suggest_excerpt(AudioView mix, int sr, double target = 30.0,
                                  const StopToken& stop = {});

}  // namespace verdel::internal
