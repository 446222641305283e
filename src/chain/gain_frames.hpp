#pragma once

#include <array>
#include <complex>
#include <cstddef>
#include <vector>

#include "chain/chain_gain.hpp"
#include "chain/chain_job.hpp"
#include "signal/transforms.hpp"

namespace verdel::internal {

/// The frames in which a fine gain is measured and played, a quarter of their length apart, and the
/// bands that a frequency lies between. Frame k begins at sample k * hop - frame, so that every
/// sample is in four of them.
struct GainPlan {
  std::size_t frame = 0;           ///< samples
  std::vector<double> centres;     ///< Hz, one per band; one entry where there is one gain
  std::vector<std::size_t> lower;  ///< [bins], the band below a bin
  std::vector<double> toward;      ///< [bins], 0 .. 1: weight of the band above
  std::size_t bins_of_a_half = 0;  ///< how many neighbours a half of the bins takes in turn

  GainPlan(bool in_bands, int sr);

  std::size_t hop() const { return frame / 4; }
  std::size_t bins() const { return frame / 2 + 1; }
  std::size_t bands() const { return centres.size(); }
  std::size_t upper(std::size_t bin) const { return std::min(lower[bin] + 1, bands() - 1); }
  double weight(std::size_t band, std::size_t bin) const;
  std::size_t count(std::size_t samples) const { return (samples + frame + hop()) / hop() + 1; }
  std::ptrdiff_t begin_of(std::size_t index) const {
    return static_cast<std::ptrdiff_t>(index * hop()) - static_cast<std::ptrdiff_t>(frame);
  }
};

/// The root of the Hann window, under which frames are measured and played.
std::vector<double> root_window(std::size_t frame);

/// The channels that one gain is for, one or two: both go through one complex transform.
struct ChannelSet {
  std::size_t first = 0, count = 1;
};

/// A stretch of one or two channels, silence around the song and in a second channel that is not
/// there.
class PairStretch {
 public:
  explicit PairStretch(std::size_t samples) : rows_(Array2D<float>::zeros(2, samples)) {}
  std::size_t samples() const { return rows_.columns(); }
  float* row(std::size_t i) { return rows_.row(i).data(); }
  const float* row(std::size_t i) const { return rows_.row(i).data(); }

 private:
  Array2D<float> rows_;
};

/// Calls fill(channel, first, count, at): samples first .. first + count - 1 of the song go to
/// `at` and on in row channel - set.first of a stretch that begins at `begin`.
template <class Fill>
void for_each_channel_in(ChannelSet set, std::ptrdiff_t begin, std::size_t samples,
                         std::size_t song, Fill fill) {
  const auto end = static_cast<std::ptrdiff_t>(song);
  const auto from = std::clamp<std::ptrdiff_t>(begin, 0, end);
  const auto to = std::clamp(begin + static_cast<std::ptrdiff_t>(samples), from, end);
  for (std::size_t i = 0; i < set.count; ++i) {
    fill(set.first + i, static_cast<std::size_t>(from), static_cast<std::size_t>(to - from),
         static_cast<std::size_t>(from - begin));
  }
}

/// Frames of a pair of channels under the root window as one complex spectrum, left + i right. In
/// what is summed over +-f both channels add up, and neither needs to be told from the other.
class PairTransform {
 public:
  using Spectrum = Array2D<std::complex<float>>;

  explicit PairTransform(std::size_t frame);
  Spectrum room() const { return Spectrum::uninitialised(1, transform_.length()); }

  void forward(const PairStretch& stretch, std::size_t at, Spectrum& time,
               Spectrum& spectrum) const;
  /// Of `stretch` minus `factor` times `other`.
  void forward_less(const PairStretch& stretch, double factor, const PairStretch& other,
                    std::size_t at, Spectrum& time, Spectrum& spectrum) const;

 private:
  ComplexTransform<float> transform_;
  std::vector<float> window_;
};

}  // namespace verdel::internal
