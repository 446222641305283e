#include "chain/tap_promise.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <memory>

#include "signal/instruction_sets.hpp"
#include "signal/transforms.hpp"
#include "signal/windows.hpp"
#include "support/scratch_pool.hpp"

namespace verdel::internal {
namespace {

constexpr double kFrameSeconds = 0.186;
constexpr std::size_t kLags = 13;  // half frames that an effect is followed for
constexpr std::size_t kRuns = 4, kRunFrames = 80;
constexpr std::size_t kTile = 16;  // bins at a time: their sums stay in the nearest cache
// Frames that overlap by half count as so many independent ones.
constexpr double kIndependent = 1.0 / 1.5;
constexpr double kSmallRidge = 1e-4;  // of the tap's energy

using Spectrum = Array2D<std::complex<float>>;

/// Spectra of a run of frames, real and imaginary parts apart, [frames][bins in whole tiles].
struct RunSpectra {
  Array2D<float> re, im;

  explicit RunSpectra(std::size_t bins)
      : re(Array2D<float>::zeros(kRunFrames, (bins + kTile - 1) / kTile * kTile)),
        im(Array2D<float>::zeros(kRunFrames, re.columns())) {}
};

/// Sums over frames for a tile of bins, by half frames that the tap is taken earlier: of the tap
/// itself and of the rest, each with the tap earlier.
struct TileSums {
  float own_re[kLags][kTile] = {}, own_im[kLags][kTile] = {};
  float rest_re[kLags][kTile] = {}, rest_im[kLags][kTile] = {};
  float power[kTile] = {};  ///< of the rest
};

/// Energy of the rest and what is left of it, over the bins.
struct Left {
  double rest = 0.0, behind_equaliser = 0.0, behind_effect = 0.0;
};

/// re, im += conj(x) times y, for a tile.
VERDEL_INLINE void add_products(const float* x_re, const float* x_im, const float* y_re,
                                const float* y_im, float* __restrict re, float* __restrict im) {
  for (std::size_t i = 0; i < kTile; ++i) {
    re[i] += x_re[i] * y_re[i] + x_im[i] * y_im[i];
    im[i] += x_re[i] * y_im[i] - x_im[i] * y_re[i];
  }
}

/// Adds the frames of a run, with silence before and behind: only so are they sums over the same
/// frames for every lag, and no combination explains more than there is. The spectra are those from
/// the tile's first bin on, frames `stride` apart.
VERDEL_INLINE void add_run(const float* own_re, const float* own_im, const float* rest_re,
                           const float* rest_im, std::size_t stride, std::size_t frames,
                           TileSums& sums) {
  for (std::size_t k = 0; k < frames; ++k) {
    const std::size_t now = k * stride;
    for (std::size_t lag = 0; lag < kLags && lag <= k; ++lag) {
      const float *const re = own_re + now - lag * stride, *const im = own_im + now - lag * stride;
      add_products(re, im, own_re + now, own_im + now, sums.own_re[lag], sums.own_im[lag]);
      add_products(re, im, rest_re + now, rest_im + now, sums.rest_re[lag], sums.rest_im[lag]);
    }
    for (std::size_t i = 0; i < kTile; ++i) {
      sums.power[i] += rest_re[now + i] * rest_re[now + i] + rest_im[now + i] * rest_im[now + i];
    }
  }
}

/// What the tap's frame, and it with those before, explain of the rest, for a tile. The equations
/// of the second are Hermitian and Toeplitz: each longer predictor explains what its own error has
/// in common with the rest (Levinson 1946, Durbin 1960).
VERDEL_INLINE void explain(const TileSums& sums, double* equaliser, double* effect) {
  double a_re[kLags][kTile] = {}, a_im[kLags][kTile] = {};  // the predictor from later frames
  double error[kTile];
  for (std::size_t i = 0; i < kTile; ++i) {
    a_re[0][i] = 1.0;
    error[i] = static_cast<double>(sums.own_re[0][i]) * (1.0 + kSmallRidge) + 1e-30;
    effect[i] = 0.0;
  }
  for (std::size_t order = 0; order < kLags; ++order) {
    double re[kTile] = {}, im[kTile] = {}, next_re[kTile] = {}, next_im[kTile] = {};
    for (std::size_t j = 0; j <= order; ++j) {
      // The frame that lies order - j half frames back.
      const float *const b_re = sums.rest_re[order - j], *const b_im = sums.rest_im[order - j];
      const std::size_t ahead = order + 1 < kLags ? order + 1 - j : 0;
      const float *const r_re = sums.own_re[ahead], *const r_im = sums.own_im[ahead];
      for (std::size_t i = 0; i < kTile; ++i) {
        const auto c = static_cast<double>(b_re[i]), d = static_cast<double>(b_im[i]);
        re[i] += a_re[j][i] * c + a_im[j][i] * d;
        im[i] += a_re[j][i] * d - a_im[j][i] * c;
        const auto p = static_cast<double>(r_re[i]), q = static_cast<double>(r_im[i]);
        next_re[i] += a_re[j][i] * p + a_im[j][i] * q;
        next_im[i] += a_im[j][i] * p - a_re[j][i] * q;
      }
    }
    for (std::size_t i = 0; i < kTile; ++i) {
      effect[i] += (re[i] * re[i] + im[i] * im[i]) / error[i];
    }
    if (order == 0) std::copy_n(effect, kTile, equaliser);
    if (order + 1 == kLags) break;
    double k_re[kTile], k_im[kTile];
    for (std::size_t i = 0; i < kTile; ++i) {
      k_re[i] = -next_re[i] / error[i];
      k_im[i] = -next_im[i] / error[i];
      error[i] *= std::max(1.0 - k_re[i] * k_re[i] - k_im[i] * k_im[i], 1e-12);
    }
    // a[j] + k conj(a[order + 1 - j]), both ends at once.
    for (std::size_t j = 0; 2 * j <= order + 1; ++j) {
      const std::size_t other = order + 1 - j;
      for (std::size_t i = 0; i < kTile; ++i) {
        const double p = a_re[j][i], q = a_im[j][i], r = a_re[other][i], s = a_im[other][i];
        a_re[j][i] = p + k_re[i] * r + k_im[i] * s;
        a_im[j][i] = q + k_im[i] * r - k_re[i] * s;
        if (j == other) continue;
        a_re[other][i] = r + k_re[i] * p + k_im[i] * q;
        a_im[other][i] = s + k_im[i] * p - k_re[i] * q;
      }
    }
  }
}

/// The part of `power` that no combination of so many values leaves by chance, if `left` is what
/// their best one leaves.
double corrected(double left, double power, double values, double frames) {
  return std::min(power, std::max(left, 0.0) * frames / std::max(frames - values, 1.0));
}

class Glance {
 public:
  Glance(const Passages& passages, const GainCurve& gain, HeardView rest)
      : passages_(passages),
        gain_(gain),
        rest_(rest),
        transform_(std::size_t{1} << static_cast<unsigned>(
                       std::lround(std::log2(kFrameSeconds * passages.job().sr)))) {
    for (const double value : get_window(transform_.length())) {
      window_.push_back(static_cast<float>(value));
    }
    choose_runs();
    const std::size_t runs = starts_.size();
    for (std::size_t i = 0; i < rest.rows() * runs; ++i) rests_.emplace_back(transform_.bins());
    run_indexed(passages.job().pool, rests_.size(), [&](std::size_t i) {
      take_run(i % runs, rests_[i], [&](std::size_t at, std::span<float> time) {
        std::ranges::copy(rest_.row(i / runs).subspan(at, time.size()), time.begin());
      });
    });
  }

  Left of(std::size_t tap, std::size_t channel) {
    if (starts_.empty()) return {};
    std::vector<TileSums> sums(rests_.front().re.columns() / kTile);
    const auto own = spectra_.lease();
    std::vector<float> gains(window_.size());
    for (std::size_t run = 0; run < starts_.size(); ++run) {
      take_run(run, *own, [&](std::size_t at, std::span<float> time) {
        gain_.read(channel, at, gains);
        passages_.read(tap, channel, at, time);
        for (std::size_t i = 0; i < time.size(); ++i) time[i] *= gains[i];
      });
      const RunSpectra& rest = rests_[channel * starts_.size() + run];
      for (std::size_t tile = 0; tile < sums.size(); ++tile) {
        const std::size_t bin = tile * kTile;
        run_kernel<add_run>((*own).re.data() + bin, (*own).im.data() + bin, rest.re.data() + bin,
                            rest.im.data() + bin, rest.re.columns(), run_frames_, sums[tile]);
      }
    }
    return left_of(sums);
  }

 private:
  std::size_t hop() const { return window_.size() / 2; }

  /// Evenly spread over what is judged, each in one passage.
  void choose_runs() {
    std::size_t judged = 0, shortest = rest_.columns();
    for (const SampleSpan& span : passages_.judged()) {
      judged += span.length();
      shortest = std::min(shortest, span.length());
    }
    if (shortest < window_.size()) return;
    run_frames_ = std::min(kRunFrames, (shortest - window_.size()) / hop() + 1);
    const std::size_t length = (run_frames_ + 1) * hop();
    const std::size_t runs = std::clamp<std::size_t>(judged / length, 1, kRuns);
    for (std::size_t i = 0; i < runs; ++i) {
      std::size_t at = i * (judged - length) / std::max<std::size_t>(runs - 1, 1);
      const auto* span = passages_.judged().data();
      for (; at >= span->length(); ++span) at -= span->length();
      starts_.push_back(std::min(span->first + at, span->stop - length));
    }
  }

  /// Reads a run's frames with read(first sample, into) and transforms them.
  template <class Read>
  void take_run(std::size_t run, RunSpectra& spectra, Read read) const {
    auto time = Array2D<float>::uninitialised(1, window_.size());
    auto spectrum = Spectrum::uninitialised(1, transform_.bins());
    for (std::size_t k = 0; k < run_frames_; ++k) {
      passages_.job().stop.check();
      read(starts_[run] + k * hop(), time.flat());
      for (std::size_t i = 0; i < window_.size(); ++i) time.data()[i] *= window_[i];
      transform_.forward(time.data(), spectrum.data());
      const auto re = spectra.re.row(k), im = spectra.im.row(k);
      for (std::size_t bin = 0; bin < spectrum.size(); ++bin) {
        re[bin] = spectrum.data()[bin].real();
        im[bin] = spectrum.data()[bin].imag();
      }
    }
  }

  Left left_of(const std::vector<TileSums>& sums) const {
    const double frames = static_cast<double>(starts_.size() * run_frames_) * kIndependent;
    Left total;
    for (std::size_t tile = 0; tile < sums.size(); ++tile) {
      double equaliser[kTile], effect[kTile];
      run_kernel<explain>(sums[tile], equaliser, effect);
      // What fills up the last tile is silent.
      for (std::size_t i = 0; i < kTile; ++i) {
        const auto power = static_cast<double>(sums[tile].power[i]);
        total.rest += power;
        total.behind_equaliser += corrected(power - equaliser[i], power, 1.0, frames);
        total.behind_effect +=
            corrected(power - effect[i], power, static_cast<double>(kLags), frames);
      }
    }
    return total;
  }

  const Passages& passages_;
  const GainCurve& gain_;
  HeardView rest_;
  RealTransform<float> transform_;
  std::vector<float> window_;
  std::size_t run_frames_ = 0;
  std::vector<std::size_t> starts_;  // of the runs, in samples
  std::vector<RunSpectra> rests_;    // [channel * runs + run]
  ScratchPool<RunSpectra> spectra_{
      [this] { return std::make_unique<RunSpectra>(transform_.bins()); }};
};

}  // namespace

std::vector<TapPromise> glance_at_taps(const Passages& passages,
                                       std::span<const std::size_t> chosen, const GainCurve& gain,
                                       HeardView rest) {
  Glance glance(passages, gain, rest);
  const std::size_t channels = rest.rows();
  std::vector<Left> left(chosen.size() * channels);
  run_indexed(passages.job().pool, left.size(),
              [&](std::size_t i) { left[i] = glance.of(chosen[i / channels], i % channels); });
  std::vector<TapPromise> promises(chosen.size());
  for (std::size_t k = 0; k < promises.size(); ++k) {
    Left all;
    for (std::size_t c = 0; c < channels; ++c) {
      const Left& part = left[k * channels + c];
      all.rest += part.rest;
      all.behind_equaliser += part.behind_equaliser;
      all.behind_effect += part.behind_effect;
    }
    promises[k] = {energy_db(all.rest / std::max(all.behind_equaliser, 1e-30)),
                   energy_db(all.rest / std::max(all.behind_effect, 1e-30))};
  }
  return promises;
}

}  // namespace verdel::internal
