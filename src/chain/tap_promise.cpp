#include "chain/tap_promise.hpp"

#include <Eigen/Cholesky>
#include <algorithm>
#include <array>
#include <cmath>
#include <complex>

#include "chain/spectral_products.hpp"
#include "signal/transforms.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

constexpr double kFrameSeconds = 0.186;
constexpr std::size_t kLags = 13;  // half frames that an effect is followed for
constexpr std::size_t kRuns = 4, kRunFrames = 108;
// Frames that overlap by half count as so many independent ones.
constexpr double kIndependent = 1.0 / 1.5;

using Complex = std::complex<float>;
using Spectrum = Array2D<Complex>;

/// Sums over the frames, by half frames that the tap is taken earlier, [lags][bins].
struct LagSums {
  Spectrum own, rest;        ///< of the tap and of the rest, each with the tap earlier
  std::vector<float> power;  ///< of the rest

  LagSums(std::size_t bins, std::size_t row)
      : own(Spectrum::zeros(kLags, row)), rest(Spectrum::zeros(kLags, row)), power(bins) {}
};

/// Energy of the rest and what is left of it, over the bins.
struct Left {
  double rest = 0.0, behind_equaliser = 0.0, behind_effect = 0.0;
};

/// The part of `power` that no combination of so many values leaves by chance, if `left` is what
/// their best one leaves.
double corrected(double left, double power, double values, double frames) {
  return std::min(power, left * frames / std::max(frames - values, 1.0));
}

class Glance {
 public:
  Glance(const ChainJob& job, const HeardTaps& taps, const GainCurve& gain, HeardView rest)
      : job_(job),
        taps_(taps),
        gain_(gain),
        rest_(rest),
        transform_(std::size_t{1} << static_cast<unsigned>(
                       std::lround(std::log2(kFrameSeconds * job.sr)))),
        window_(get_window(transform_.length())) {}

  Left of(std::size_t tap, std::size_t channel) const {
    LagSums sums(transform_.bins(), row_bins());
    const std::size_t frames = frame_count();
    const std::size_t taken = std::min(frames, kRuns * kRunFrames);
    if (taken == frames) {
      sum_run(tap, channel, 0, frames, sums);
    } else {
      for (std::size_t run = 0; run < kRuns; ++run) {
        sum_run(tap, channel, run * (frames - kRunFrames) / (kRuns - 1), kRunFrames, sums);
      }
    }
    return left_of(sums, static_cast<double>(taken) * kIndependent);
  }

 private:
  // Every row begins where a transform may write.
  std::size_t row_bins() const { return (transform_.bins() + 7) / 8 * 8; }
  std::size_t hop() const { return window_.size() / 2; }
  std::size_t frame_count() const {
    const std::size_t frames = rest_.columns();
    return frames < window_.size() ? 0 : (frames - window_.size()) / hop() + 1;
  }

  /// Sums over frames first .. first + count - 1, with silence before and behind both: only so are
  /// they sums over the same frames for every lag, and no combination explains more than there is.
  void sum_run(std::size_t tap, std::size_t channel, std::size_t first, std::size_t count,
               LagSums& sums) const {
    auto past = Spectrum::zeros(kLags, row_bins());
    auto rest = Spectrum::zeros(1, row_bins());
    auto time = Array2D<float>::uninitialised(1, window_.size());
    std::vector<float> gains(window_.size());
    for (std::size_t k = 0; k < count; ++k) {
      job_.stop.check();
      const std::size_t at = (first + k) * hop();
      gain_.read(channel, at, gains);
      read_tap(tap, channel, at, gains, time);
      transform_.forward(time.data(), past.row(k % kLags).data());
      for (std::size_t i = 0; i < window_.size(); ++i) {
        time.data()[i] = static_cast<float>(window_[i]) * rest_.row(channel)[at + i];
      }
      transform_.forward(time.data(), rest.data());
      add(past, k, rest, sums);
    }
  }

  void read_tap(std::size_t tap, std::size_t channel, std::size_t at,
                const std::vector<float>& gains, Array2D<float>& time) const {
    const auto row = taps_.given(tap).row(channel);
    const auto begin = static_cast<std::ptrdiff_t>(at) - taps_.paths[tap].lag;
    for (std::size_t i = 0; i < gains.size(); ++i) {
      const std::ptrdiff_t place = begin + static_cast<std::ptrdiff_t>(i);
      const bool inside = place >= 0 && place < static_cast<std::ptrdiff_t>(row.size());
      const auto sample = inside ? row[static_cast<std::size_t>(place)] : 0.0F;
      time.data()[i] = static_cast<float>(window_[i]) * gains[i] * sample;
    }
  }

  static void add(const Spectrum& past, std::size_t newest, const Spectrum& rest, LagSums& sums) {
    for (std::size_t lag = 0; lag < std::min(kLags, newest + 1); ++lag) {
      const auto earlier = past.row((newest - lag) % kLags);
      add_correlation(earlier, past.row(newest % kLags), sums.own.row(lag));
      add_correlation(earlier, rest.flat(), sums.rest.row(lag));
    }
    for (std::size_t bin = 0; bin < sums.power.size(); ++bin) {
      sums.power[bin] += std::norm(rest.data()[bin]);
    }
  }

  static Left left_of(const LagSums& sums, double frames) {
    using Matrix = Eigen::Matrix<std::complex<double>, kLags, kLags>;
    using Vector = Eigen::Matrix<std::complex<double>, kLags, 1>;
    Left total;
    for (std::size_t bin = 0; bin < sums.power.size(); ++bin) {
      const auto own_at = [&](std::size_t lag) {
        return std::complex<double>(sums.own.row(lag)[bin]);
      };
      const auto rest_at = [&](std::size_t lag) {
        return std::complex<double>(sums.rest.row(lag)[bin]);
      };
      const auto power = static_cast<double>(sums.power[bin]);
      const double own = own_at(0).real();
      total.rest += power;
      double behind_equaliser = power, behind_effect = power;
      if (own > 0.0) {
        Matrix a;
        Vector b;
        for (std::size_t i = 0; i < kLags; ++i) {
          const auto row = static_cast<Eigen::Index>(i);
          b[row] = rest_at(i);
          for (std::size_t j = 0; j <= i; ++j) {
            // The tap j half frames ago with the tap i half frames ago.
            a(row, static_cast<Eigen::Index>(j)) = own_at(i - j);
          }
          a(row, row) += 1e-4 * own;
        }
        behind_equaliser -= std::norm(rest_at(0)) / own;
        const Eigen::LLT<Matrix, Eigen::Lower> factors(a);
        behind_effect -= b.dot(factors.solve(b)).real();
      }
      total.behind_equaliser += corrected(behind_equaliser, power, 1.0, frames);
      total.behind_effect += corrected(behind_effect, power, static_cast<double>(kLags), frames);
    }
    return total;
  }

  const ChainJob& job_;
  const HeardTaps& taps_;
  const GainCurve& gain_;
  HeardView rest_;
  RealTransform<float> transform_;
  std::vector<double> window_;
};

}  // namespace

std::vector<TapPromise> glance_at_taps(const ChainJob& job, const HeardTaps& taps,
                                       const GainCurve& gain, HeardView rest) {
  const Glance glance(job, taps, gain, rest);
  const std::size_t channels = rest.rows();
  std::vector<Left> left(taps.size() * channels);
  run_indexed(job.pool, left.size(),
              [&](std::size_t i) { left[i] = glance.of(i / channels, i % channels); });
  std::vector<TapPromise> promises(taps.size());
  for (std::size_t tap = 0; tap < taps.size(); ++tap) {
    Left all;
    for (std::size_t c = 0; c < channels; ++c) {
      const Left& part = left[tap * channels + c];
      all.rest += part.rest;
      all.behind_equaliser += part.behind_equaliser;
      all.behind_effect += part.behind_effect;
    }
    promises[tap] = {energy_db(all.rest / std::max(all.behind_equaliser, 1e-30)),
                     energy_db(all.rest / std::max(all.behind_effect, 1e-30))};
  }
  return promises;
}

}  // namespace verdel::internal
