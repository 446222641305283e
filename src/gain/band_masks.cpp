#include "gain/band_masks.hpp"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <numbers>

#include "signal/sequences.hpp"

namespace verdel::internal {
namespace {

constexpr double kLowestCentreHz = 40.0;
constexpr double kNarrowestCrossoverHz = 1e-9;

// The angle at `frequency` in a crossover: 0 at its lower centre, a quarter turn at its upper one.
// Both masks of a crossover take the sine and the cosine of this one angle, so that their squares
// add up to 1.
double crossover_angle(double frequency, double lower, double upper) {
  const double width = std::max(upper - lower, kNarrowestCrossoverHz);
  return std::numbers::pi / 2.0 * std::clamp((frequency - lower) / width, 0.0, 1.0);
}

double square(double value) {
  return value * value;
}

}  // namespace

StreamedBandMasks::StreamedBandMasks(std::size_t nfft, double sr, std::size_t bands)
    : nfft_(nfft),
      sr_(sr),
      centers_(geomspace(kLowestCentreHz, sr / 2.0, bands)),
      frequencies_(linspace(0.0, sr / 2.0, nfft / 2 + 1)),
      denominator_(nfft / 2 + 1, 1.0) {
  assert(nfft >= 2 && bands >= 2 && sr > 0.0);
  for (const double centre : centers_) {
    centre_bins_.push_back(std::min(searchsorted(frequencies_, centre), nfft / 2));
  }
  // Two bands share a bin at most; what others hold above their crossovers is too little to change
  // a sum, which is never far from 1.
  for (std::size_t band = 1; band < bands; ++band) {
    for (std::size_t bin = centre_bins_[band - 1]; bin < centre_bins_[band]; ++bin) {
      const double angle = crossover_angle(frequencies_[bin], centers_[band - 1], centers_[band]);
      denominator_[bin] = square(std::cos(angle)) + square(std::sin(angle));
    }
  }
}

StreamedBandMasks::Edges StreamedBandMasks::edges(std::size_t band) const {
  assert(band < size());
  return {.first = band > 0 ? centre_bins_[band - 1] : 0,
          .crest = centre_bins_[band],
          .stop = band + 1 < size() ? centre_bins_[band + 1] : frequencies_.size()};
}

double StreamedBandMasks::raw_weight(std::size_t band, std::size_t bin) const {
  const auto [first, crest, stop] = edges(band);
  const double frequency = frequencies_[bin];
  if (bin < first) return 0.0;
  if (bin < crest) {
    return band == 0
               ? 1.0
               : square(std::sin(crossover_angle(frequency, centers_[band - 1], centers_[band])));
  }
  if (band + 1 == size()) return 1.0;
  // Above the next centre stands the crossover's own end value, about 4e-33 and not 0.
  return square(std::cos(bin < stop ? crossover_angle(frequency, centers_[band], centers_[band + 1])
                                    : std::numbers::pi / 2.0));
}

std::vector<double> StreamedBandMasks::raw_mask(std::size_t band) const {
  std::vector<double> mask(frequencies_.size());
  for (std::size_t bin = 0; bin < mask.size(); ++bin) mask[bin] = raw_weight(band, bin);
  return mask;
}

std::vector<double> StreamedBandMasks::operator[](std::size_t band) const {
  auto mask = raw_mask(band);
  for (std::size_t bin = 0; bin < mask.size(); ++bin) mask[bin] /= denominator_[bin];
  return mask;
}

}  // namespace verdel::internal
