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
constexpr double kSmallestDenominator = 1e-12;

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
      denominator_(nfft / 2 + 1) {
  assert(nfft >= 2 && bands >= 2 && sr > 2.0 * kLowestCentreHz);
  for (std::size_t band = 0; band < bands; ++band) {
    const auto mask = raw_mask(band);
    for (std::size_t bin = 0; bin < mask.size(); ++bin) denominator_[bin] += mask[bin];
  }
  for (auto& value : denominator_) value = std::max(value, kSmallestDenominator);
}

std::vector<double> StreamedBandMasks::raw_mask(std::size_t band) const {
  assert(band < size());
  std::vector<double> mask(frequencies_.size(), 1.0);
  const std::size_t centre = searchsorted(frequencies_, centers_[band]);
  if (band > 0) {
    const std::size_t first = searchsorted(frequencies_, centers_[band - 1]);
    std::fill_n(mask.begin(), first, 0.0);
    for (std::size_t bin = first; bin < centre; ++bin) {
      mask[bin] =
          square(std::sin(crossover_angle(frequencies_[bin], centers_[band - 1], centers_[band])));
    }
  }
  if (band + 1 < size()) {
    const std::size_t stop = searchsorted(frequencies_, centers_[band + 1]);
    for (std::size_t bin = centre; bin < stop; ++bin) {
      mask[bin] *=
          square(std::cos(crossover_angle(frequencies_[bin], centers_[band], centers_[band + 1])));
    }
    // The crossover's own end value, about 4e-33 and not 0: a bin on the next centre or above it.
    const double beyond = square(std::cos(std::numbers::pi / 2.0));
    for (std::size_t bin = stop; bin < mask.size(); ++bin) mask[bin] *= beyond;
  }
  return mask;
}

std::vector<double> StreamedBandMasks::operator[](std::size_t band) const {
  auto mask = raw_mask(band);
  for (std::size_t bin = 0; bin < mask.size(); ++bin) mask[bin] /= denominator_[bin];
  return mask;
}

}  // namespace verdel::internal
