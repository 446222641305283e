#include "chain/gain_frames.hpp"

#include <algorithm>
#include <cmath>

#include "signal/instruction_sets.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

constexpr double kFineSeconds = 0.006, kBandedSeconds = 0.0464;
constexpr double kLowestCentreHz = 80.0, kHighestCentreHz = 18000.0;

std::size_t frame_of(bool in_bands, int sr) {
  const double samples = (in_bands ? kBandedSeconds : kFineSeconds) * sr;
  return std::size_t{1} << static_cast<unsigned>(std::lround(std::log2(samples)));
}

VERDEL_INLINE void pack(const float* __restrict window, const float* __restrict left,
                        const float* __restrict right, std::size_t count, float* __restrict out) {
  for (std::size_t i = 0; i < count; ++i) {
    out[2 * i] = window[i] * left[i];
    out[2 * i + 1] = window[i] * right[i];
  }
}

VERDEL_INLINE void pack_less(const float* __restrict window, const PairStretch* from, float factor,
                             const PairStretch* other, std::size_t at, std::size_t count,
                             float* __restrict out) {
  const float *left = from->row(0) + at, *right = from->row(1) + at;
  const float *less_left = other->row(0) + at, *less_right = other->row(1) + at;
  for (std::size_t i = 0; i < count; ++i) {
    out[2 * i] = window[i] * (left[i] - factor * less_left[i]);
    out[2 * i + 1] = window[i] * (right[i] - factor * less_right[i]);
  }
}

float* flat(PairTransform::Spectrum& values) {
  return reinterpret_cast<float*>(values.data());
}

}  // namespace

GainPlan::GainPlan(bool in_bands, int sr)
    : frame(frame_of(in_bands, sr)), bins_of_a_half(in_bands ? 4 : 2) {
  if (in_bands) {
    const double limit = std::min(0.5 * sr, kHighestCentreHz);
    for (double hz = kLowestCentreHz; hz < limit; hz *= 2.0) centres.push_back(hz);
  }
  if (centres.empty()) centres = {1000.0};
  const auto last = static_cast<double>(bands() - 1);
  for (std::size_t bin = 0; bin < bins(); ++bin) {
    const double hz = static_cast<double>(bin) * sr / static_cast<double>(frame);
    const double place = std::clamp(std::log2(std::max(hz, 1.0) / centres.front()), 0.0, last);
    lower.push_back(static_cast<std::size_t>(place));
    toward.push_back(place - std::floor(place));
  }
}

double GainPlan::weight(std::size_t band, std::size_t bin) const {
  double sum = 0.0;
  if (lower[bin] == band) sum += 1.0 - toward[bin];
  if (upper(bin) == band) sum += toward[bin];
  return sum;
}

std::vector<double> root_window(std::size_t frame) {
  std::vector<double> window = get_window(frame);
  for (double& value : window) value = std::sqrt(value);
  return window;
}

PairTransform::PairTransform(std::size_t frame) : transform_(frame) {
  for (const double value : root_window(frame)) window_.push_back(static_cast<float>(value));
}

void PairTransform::forward(const PairStretch& stretch, std::size_t at, Spectrum& time,
                            Spectrum& spectrum) const {
  run_kernel<pack>(window_.data(), stretch.row(0) + at, stretch.row(1) + at, window_.size(),
                   flat(time));
  transform_.forward(time.data(), spectrum.data());
}

void PairTransform::forward_less(const PairStretch& stretch, double factor,
                                 const PairStretch& other, std::size_t at, Spectrum& time,
                                 Spectrum& spectrum) const {
  run_kernel<pack_less>(window_.data(), &stretch, static_cast<float>(factor), &other, at,
                        window_.size(), flat(time));
  transform_.forward(time.data(), spectrum.data());
}

}  // namespace verdel::internal
