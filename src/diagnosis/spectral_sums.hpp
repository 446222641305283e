#pragma once

#include <Eigen/Core>
#include <complex>
#include <cstddef>
#include <vector>

#include "diagnosis/finding.hpp"
#include "signal/arrays.hpp"
#include "support/stop_token.hpp"
#include "support/thread_pool.hpp"

namespace verdel::internal {

/// What is listened to as one channel: the left one (or the only one), the right one, their
/// difference, in which a tap whose sides are swapped stands turned over, and their mean, which is
/// what a master that treats middle and sides apart treats as one.
enum class Ear { kLeft, kRight, kSide, kMid };

/// Band edges in bins of the sums' frames, and their centres.
struct SpectralBand {
  std::size_t first = 0, stop = 0;
  double hz = 0.0;
};

/// Mix and taps against each other: in short frames, summed over the bins of a band and over the
/// frames of a segment of some seconds. All that the fits need, in a size that does not grow with
/// the rate.
class SpectralSums {
 public:
  /// Reads all audio once, [channels][frames] of one shape. A task of the pool per segment.
  SpectralSums(AudioView mix, const StemViews& taps, int sr, ThreadPool* pool,
               const StopToken& stop);

  std::size_t taps() const { return taps_; }
  std::size_t segments() const { return segments_.size(); }
  std::size_t ears() const { return ears_; }
  const std::vector<SpectralBand>& bands() const { return bands_; }
  Stretch stretch(std::size_t segment) const;
  int sr() const { return sr_; }

  /// [taps + 1][taps + 1], the mix last: element (i, j) is the sum of conj(x_i) x_j.
  const Eigen::MatrixXcd& gram(std::size_t segment, Ear ear, std::size_t band) const;
  /// Values that were summed into a gram, as if they were independent of each other.
  double samples(std::size_t segment, std::size_t band) const;
  /// The power of a tap, or with taps() of the mix, by bin over the whole song and both channels.
  const std::vector<double>& spectrum(std::size_t tap) const { return spectra_[tap]; }
  double hz_of_bin(std::size_t bin) const;

 private:
  struct Segment {
    std::size_t first = 0, frames = 0;                 ///< its first sample, its short frames
    std::vector<std::vector<Eigen::MatrixXcd>> grams;  ///< [ears][bands]
    std::vector<std::vector<double>> powers;           ///< [taps + 1][bins]
  };

  void add_segment(AudioView mix, const StemViews& taps, Segment& segment,
                   const StopToken& stop) const;

  std::size_t taps_, ears_, frame_;
  int sr_;
  std::vector<SpectralBand> bands_;
  std::vector<Segment> segments_;
  std::vector<std::vector<double>> spectra_;
};

}  // namespace verdel::internal
