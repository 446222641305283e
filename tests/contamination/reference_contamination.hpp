#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <functional>
#include <limits>
#include <numeric>
#include <span>
#include <vector>

#include "contamination/figures.hpp"
#include "gain/band_masks.hpp"
#include "signal/levels.hpp"
#include "signal/transforms.hpp"
#include "support/moving_average.hpp"
#include "support/precision.hpp"

namespace verdel::internal::testing {

/// The figures of the contamination report by definition, one step after the other at the song's
/// own rate, in double precision.
class ReferenceContamination {
 public:
  explicit ReferenceContamination(const ReportJob& job)
      : job_(job),
        frames_(job.est.front().audio.columns()),
        masks_(job.nfft, job.sr, job.n_bands),
        transform_(job.nfft) {}

  std::vector<StemContamination> figures() const {
    const std::size_t stems = job_.est.size();
    std::vector<StemContamination> figures(stems);
    std::vector<std::vector<double>> foreign_envelopes, tap_envelopes;
    for (std::size_t s = 0; s < stems; ++s) {
      const AudioArray est = widened(job_.est[s].audio), tap = widened(job_.taps[s].audio);
      const AudioArray foreign = foreign_part(est.view(), tap.view());
      figures[s].ratio = levels(foreign.view()).rms - levels(job_.est[s].audio).rms;
      foreign_envelopes.push_back(envelope(foreign.view()));
      tap_envelopes.push_back(envelope(tap.view()));
    }
    for (std::size_t s = 0; s < stems; ++s) {
      for (std::size_t other = 0; other < stems; ++other) {
        figures[s].resemblance.push_back(other == s
                                             ? std::numeric_limits<double>::quiet_NaN()
                                             : pearson(tap_envelopes[other], foreign_envelopes[s]));
      }
    }
    return figures;
  }

 private:
  std::size_t window(double seconds) const {
    return std::max<std::size_t>(3, static_cast<std::size_t>(job_.sr * seconds) | 1);
  }

  Array2D<std::complex<double>> spectrum(std::span<const double> signal) const {
    auto time = AudioArray::zeros(1, job_.nfft);
    std::copy(signal.begin(), signal.end(), time.data());
    auto bins = Array2D<std::complex<double>>::uninitialised(1, transform_.bins());
    transform_.forward(time.data(), bins.data());
    return bins;
  }

  std::vector<double> in_band(const Array2D<std::complex<double>>& whole,
                              const std::vector<double>& mask) const {
    auto bins = Array2D<std::complex<double>>::uninitialised(1, transform_.bins());
    for (std::size_t i = 0; i < mask.size(); ++i) bins.data()[i] = whole.data()[i] * mask[i];
    auto time = AudioArray::uninitialised(1, job_.nfft);
    transform_.inverse(bins.data(), time.data());
    std::vector<double> signal(time.data(), time.data() + frames_);
    for (double& x : signal) x /= static_cast<double>(job_.nfft);
    return signal;
  }

  std::vector<double> averaged_product(const std::vector<double>& a, const std::vector<double>& b,
                                       double seconds) const {
    std::vector<double> product(a.size());
    std::transform(a.begin(), a.end(), b.begin(), product.begin(), std::multiplies<>());
    return moving_average(product, window(seconds));
  }

  AudioArray foreign_part(AudioView stem, AudioView tap) const {
    auto foreign = AudioArray::zeros(stem.rows(), frames_);
    for (std::size_t c = 0; c < stem.rows(); ++c) {
      const auto whole_stem = spectrum(stem.row(c)), whole_tap = spectrum(tap.row(c));
      for (std::size_t band = 0; band < masks_.size(); ++band) {
        const std::vector<double> mask = masks_[band];
        const auto a = in_band(whole_stem, mask), b = in_band(whole_tap, mask);
        const auto cross = averaged_product(a, b, 0.05), energy = averaged_product(b, b, 0.05);
        for (std::size_t i = 0; i < frames_; ++i) {
          const double gain = energy[i] > 1e-14 ? cross[i] / energy[i] : 0.0;
          foreign.row(c)[i] += a[i] - std::clamp(gain, 0.0, 50.0) * b[i];
        }
      }
    }
    return foreign;
  }

  std::vector<double> envelope(AudioView audio) const {
    std::vector<double> mono(frames_, 0.0);
    for (std::size_t c = 0; c < audio.rows(); ++c) {
      for (std::size_t i = 0; i < frames_; ++i) mono[i] += audio.row(c)[i];
    }
    for (double& x : mono) x /= static_cast<double>(audio.rows());
    std::vector<double> result = averaged_product(mono, mono, 0.02);
    for (double& x : result) x = std::sqrt(x);
    return result;
  }

  static double pearson(std::vector<double> p, std::vector<double> q) {
    for (auto* curve : {&p, &q}) {
      const double mean = std::reduce(curve->begin(), curve->end()) / static_cast<double>(p.size());
      for (double& x : *curve) x -= mean;
    }
    const auto sum = [](auto& a, auto& b) {
      return std::inner_product(a.begin(), a.end(), b.begin(), 0.0);
    };
    return sum(p, q) / std::sqrt(sum(p, p) * sum(q, q));
  }

  const ReportJob& job_;
  std::size_t frames_;
  StreamedBandMasks masks_;
  RealTransform<double> transform_;
};

}  // namespace verdel::internal::testing
