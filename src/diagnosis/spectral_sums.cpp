#include "diagnosis/spectral_sums.hpp"

#include <algorithm>
#include <bit>
#include <cmath>

#include "signal/transforms.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

constexpr double kFrameSeconds = 0.186;
constexpr double kSegmentSeconds = 4.0;
constexpr double kLowestHz = 50.0, kBandsPerOctave = 3.0;
constexpr std::size_t kFewestBins = 4;
// A Hann window and frames that overlap by half: neighbouring values say partly the same.
constexpr double kIndependent = 0.35;

std::size_t frame_length(int sr) {
  return std::size_t{1} << static_cast<unsigned>(std::lround(std::log2(kFrameSeconds * sr)));
}

std::vector<SpectralBand> bands_of(std::size_t frame, int sr) {
  std::vector<SpectralBand> bands;
  const double hz_per_bin = static_cast<double>(sr) / static_cast<double>(frame);
  const double highest = std::min(20000.0, 0.47 * sr);
  const double step = std::exp2(1.0 / kBandsPerOctave);
  double from = kLowestHz;
  while (from * step < highest) {
    SpectralBand band{.first = static_cast<std::size_t>(std::ceil(from / hz_per_bin)), .stop = 0};
    double to = from;
    do {
      to *= step;
      band.stop = static_cast<std::size_t>(std::ceil(to / hz_per_bin));
    } while (band.stop - band.first < kFewestBins);
    band.hz = std::sqrt(from * to);
    if (to <= highest) bands.push_back(band);
    from = to;
  }
  return bands;
}

using Spectra = Eigen::MatrixXcf;  // [bins][taps + 1]

template <class Sample>
void apply_window(std::span<const Sample> samples, const std::vector<double>& window, float* time) {
  for (std::size_t i = 0; i < window.size(); ++i) {
    time[i] = static_cast<float>(static_cast<double>(samples[i]) * window[i]);
  }
}

}  // namespace

SpectralSums::SpectralSums(AudioView mix, const StemViews& taps, int sr, ThreadPool* pool,
                           const StopToken& stop)
    : taps_(taps.size()),
      ears_(mix.rows() == 2 ? 4 : 1),
      frame_(frame_length(sr)),
      sr_(sr),
      bands_(bands_of(frame_, sr)) {
  const std::size_t hop = frame_ / 2;
  const std::size_t per_segment =
      std::max<std::size_t>(static_cast<std::size_t>(kSegmentSeconds * sr) / hop, 1);
  const std::size_t all = mix.columns() < frame_ ? 0 : (mix.columns() - frame_) / hop + 1;
  for (std::size_t first = 0; first < all; first += per_segment) {
    // What is too short for a segment of its own belongs to the one before it.
    const std::size_t left = all - first;
    if (left < per_segment / 2 && !segments_.empty()) {
      segments_.back().frames += left;
      break;
    }
    segments_.emplace_back();
    segments_.back().first = first * hop;
    segments_.back().frames = std::min(left, per_segment);
  }
  run_indexed(pool, segments_.size(),
              [&](std::size_t i) { add_segment(mix, taps, segments_[i], stop); });
  spectra_.assign(taps_ + 1, std::vector<double>(frame_ / 2 + 1));
  for (Segment& segment : segments_) {
    for (std::size_t t = 0; t <= taps_; ++t) {
      for (std::size_t k = 0; k < spectra_[t].size(); ++k) spectra_[t][k] += segment.powers[t][k];
    }
    segment.powers.clear();
  }
}

void SpectralSums::add_segment(AudioView mix, const StemViews& taps, Segment& segment,
                               const StopToken& stop) const {
  const RealTransform<float> transform(frame_);
  const auto window = get_window(frame_);
  const auto bins = static_cast<Eigen::Index>(transform.bins());
  const auto signals = static_cast<Eigen::Index>(taps_ + 1);
  auto time = Array2D<float>::uninitialised(1, frame_);
  auto spectrum = Array2D<std::complex<float>>::uninitialised(1, transform.bins());
  std::vector<Spectra> ears(ears_, Spectra(bins, signals));
  segment.powers.assign(taps_ + 1, std::vector<double>(transform.bins()));
  segment.grams.assign(ears_, std::vector<Eigen::MatrixXcd>(
                                  bands_.size(), Eigen::MatrixXcd::Zero(signals, signals)));
  for (std::size_t f = 0; f < segment.frames; ++f) {
    stop.check();
    const std::size_t first = segment.first + f * frame_ / 2;
    for (std::size_t t = 0; t <= taps_; ++t) {
      const auto column = static_cast<Eigen::Index>(t);
      for (std::size_t c = 0; c < mix.rows() && c < 2; ++c) {
        if (t == taps_) {
          apply_window(mix.row(c).subspan(first, frame_), window, time.data());
        } else {
          apply_window(taps[t].audio.row(c).subspan(first, frame_), window, time.data());
        }
        transform.forward(time.data(), spectrum.data());
        for (std::size_t k = 0; k < transform.bins(); ++k) {
          const std::complex<float> value = spectrum.data()[k];
          ears[c](static_cast<Eigen::Index>(k), column) = value;
          segment.powers[t][k] += static_cast<double>(std::norm(value));
        }
      }
      if (ears_ == 1) continue;
      ears[2].col(column) = 0.5F * (ears[0].col(column) - ears[1].col(column));
      ears[3].col(column) = 0.5F * (ears[0].col(column) + ears[1].col(column));
    }
    for (std::size_t e = 0; e < ears_; ++e) {
      for (std::size_t b = 0; b < bands_.size(); ++b) {
        const auto part =
            ears[e].middleRows(static_cast<Eigen::Index>(bands_[b].first),
                               static_cast<Eigen::Index>(bands_[b].stop - bands_[b].first));
        const Eigen::MatrixXcf sums = part.adjoint() * part;
        segment.grams[e][b] += sums.cast<std::complex<double>>();
      }
    }
  }
}

Stretch SpectralSums::stretch(std::size_t segment) const {
  const Segment& at = segments_[segment];
  return {static_cast<double>(at.first) / sr_,
          static_cast<double>(at.first + (at.frames + 1) * frame_ / 2) / sr_};
}

const Eigen::MatrixXcd& SpectralSums::gram(std::size_t segment, Ear ear, std::size_t band) const {
  return segments_[segment].grams[static_cast<std::size_t>(ear)][band];
}

double SpectralSums::samples(std::size_t segment, std::size_t band) const {
  return kIndependent * static_cast<double>(segments_[segment].frames) *
         static_cast<double>(bands_[band].stop - bands_[band].first);
}

double SpectralSums::hz_of_bin(std::size_t bin) const {
  return static_cast<double>(bin) * sr_ / static_cast<double>(frame_);
}

}  // namespace verdel::internal
