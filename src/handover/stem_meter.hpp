#pragma once

#include <memory>
#include <vector>

#include "signal/arrays.hpp"

namespace verdel::internal {

/// Levels of a whole file. -infinity for silence; NaN where the standard has no answer: a rate or a
/// number of channels that it does not know.
struct StemLevels {
  double peak_dbfs = 0.0;
  double true_peak_dbtp = 0.0;     ///< ITU-R BS.1770-4, annex 2
  double loudness_lufs = 0.0;      ///< EBU R 128, integrated
  double loudness_range_lu = 0.0;  ///< EBU Tech 3342
};

/// Measures sound as it goes by. Memory does not grow with its length.
class StemMeter {
 public:
  StemMeter(std::size_t channels, int sr);
  ~StemMeter();
  StemMeter(StemMeter&&) noexcept;

  /// The next frames, [channels][frames], full scale at 1.0.
  void add(AudioView audio);
  StemLevels levels() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace verdel::internal
