#pragma once

#include <cstddef>
#include <optional>
#include <span>

#include "signal/arrays.hpp"

namespace verdel::internal {

/// Levels in dB relative to 1.0; -999.0 stands for silence and for an empty array.
struct Levels {
  double peak = 0.0, rms = 0.0;
};

/// Levels of audio that comes piece by piece. Row after row in blocks of kBlock, the last of a row
/// shorter, it gives the bits of `levels`.
class LevelSums {
 public:
  /// Sums are closed after so many elements, so that rounding grows with the blocks and not with
  /// the samples.
  static constexpr std::size_t kBlock = 4096;

  void add(std::span<const double> block);
  void add(std::span<const float> block);
  Levels levels() const;

 private:
  template <class Real>
  void add_block(std::span<const Real> block);

  double peak_ = 0.0, squares_ = 0.0, count_ = 0.0;
};

/// Peak and RMS over all elements, summed in double in one fixed order. An element that is not a
/// number makes both not a number.
Levels levels(AudioView audio);
Levels levels(StemView audio);

/// A sample that is infinite or not a number.
struct BadSample {
  std::size_t channel = 0, frame = 0;
};

/// The first such sample in time, at one time the one of the lowest channel; nothing if all samples
/// are finite.
std::optional<BadSample> first_non_finite(AudioView audio);
std::optional<BadSample> first_non_finite(StemView audio);

}  // namespace verdel::internal
