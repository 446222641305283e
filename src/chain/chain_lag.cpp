#include "chain/chain_lag.hpp"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <vector>

#include "signal/transforms.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

constexpr double kFrameSeconds = 3.0;
// A long song is looked at in so many places, evenly spread; more do not sharpen the peak.
constexpr std::size_t kMostFrames = 32;
constexpr double kLeastShare = 1e-8;  // of the loudest bin, that a bin must hold to count

using Complex = std::complex<float>;

/// Sums over the frames of one channel.
struct CrossSpectrum {
  std::vector<std::complex<double>> cross;
  std::vector<double> a, b;

  explicit CrossSpectrum(std::size_t bins) : cross(bins), a(bins), b(bins) {}
  void add(const CrossSpectrum& other) {
    for (std::size_t k = 0; k < a.size(); ++k) {
      cross[k] += other.cross[k];
      a[k] += other.a[k];
      b[k] += other.b[k];
    }
  }
};

std::size_t lag_limit(int sr) {
  return static_cast<std::size_t>(kLongestChainLag * sr);
}

/// The place of the largest magnitude among the lags -limit .. limit of a circular correlation.
template <class Real>
std::ptrdiff_t largest_lag(std::span<const Real> circle, std::size_t limit) {
  const auto n = static_cast<std::ptrdiff_t>(circle.size());
  const auto most = static_cast<std::ptrdiff_t>(limit);
  std::ptrdiff_t best = 0;
  Real largest = -1;
  for (std::ptrdiff_t lag = -most; lag <= most; ++lag) {
    const Real value = std::abs(circle[static_cast<std::size_t>(lag < 0 ? lag + n : lag)]);
    if (value > largest) {
      largest = value;
      best = lag;
    }
  }
  return best;
}

class FrameSums {
 public:
  FrameSums(const StretchReader& a, const StretchReader& b, std::size_t frame)
      : a_(a), b_(b), transform_(frame), window_(get_window(frame)) {}

  CrossSpectrum of_channel(std::size_t channel, const std::vector<std::size_t>& starts,
                           const StopToken& stop) const {
    CrossSpectrum sums(transform_.bins());
    auto time = Array2D<float>::uninitialised(1, transform_.length());
    auto a = Array2D<Complex>::uninitialised(1, transform_.bins());
    auto b = Array2D<Complex>::uninitialised(1, transform_.bins());
    for (const std::size_t start : starts) {
      stop.check();
      take(a_, channel, start, time, a);
      take(b_, channel, start, time, b);
      for (std::size_t k = 0; k < sums.a.size(); ++k) {
        const std::complex<double> p(a.data()[k]), q(b.data()[k]);
        sums.cross[k] += p * std::conj(q);
        sums.a[k] += std::norm(p);
        sums.b[k] += std::norm(q);
      }
    }
    return sums;
  }

 private:
  void take(const StretchReader& read, std::size_t channel, std::size_t start, Array2D<float>& time,
            Array2D<Complex>& spectrum) const {
    read(channel, start, time.flat());
    for (std::size_t i = 0; i < window_.size(); ++i) {
      time.data()[i] *= static_cast<float>(window_[i]);
    }
    transform_.forward(time.data(), spectrum.data());
  }

  const StretchReader& a_;
  const StretchReader& b_;
  RealTransform<float> transform_;
  std::vector<double> window_;
};

std::vector<std::size_t> frame_starts(std::size_t frames, std::size_t frame) {
  const std::size_t hop = frame / 2;
  const std::size_t count = frames <= frame ? 1 : (frames - frame) / hop + 1;
  const std::size_t taken = std::min(count, kMostFrames);
  std::vector<std::size_t> starts(taken);
  for (std::size_t i = 0; i < taken; ++i) starts[i] = i * count / taken * hop;
  return starts;
}

}  // namespace

std::ptrdiff_t coherent_lag(const StretchReader& a, const StretchReader& b, std::size_t channels,
                            std::size_t frames, const ChainJob& job) {
  const auto frame = std::bit_ceil(static_cast<std::size_t>(std::ceil(kFrameSeconds * job.sr)));
  const FrameSums sums(a, b, frame);
  const auto starts = frame_starts(frames, frame);
  std::vector<CrossSpectrum> parts(channels, CrossSpectrum(0));
  run_indexed(job.pool, channels,
              [&](std::size_t c) { parts[c] = sums.of_channel(c, starts, job.stop); });
  CrossSpectrum& all = parts.front();
  for (std::size_t c = 1; c < channels; ++c) all.add(parts[c]);

  const double a_least = kLeastShare * *std::ranges::max_element(all.a);
  const double b_least = kLeastShare * *std::ranges::max_element(all.b);
  if (a_least == 0.0 || b_least == 0.0) return 0;
  const RealTransform<double> transform(frame);
  auto spectrum = Array2D<std::complex<double>>::zeros(1, transform.bins());
  auto circle = Array2D<double>::uninitialised(1, frame);
  for (std::size_t k = 0; k < all.a.size(); ++k) {
    if (!(all.a[k] > a_least && all.b[k] > b_least)) continue;
    spectrum.data()[k] = all.cross[k] / std::sqrt(all.a[k] * all.b[k]);
  }
  transform.inverse(spectrum.data(), circle.data());
  return largest_lag<double>(circle.flat(), lag_limit(job.sr));
}

std::ptrdiff_t plain_lag(AudioView a, AudioView b, int sr, const StopToken& stop) {
  // In blocks of b against their surroundings in a: the sums of one transform of all, in bounded
  // memory.
  const std::size_t limit = lag_limit(sr), lags = 2 * limit + 1;
  const RealTransform<double> transform(std::bit_ceil(std::max<std::size_t>(16384, 4 * lags)));
  const std::size_t block = transform.length() - lags;
  auto time = Array2D<double>::uninitialised(1, transform.length());
  auto p = Array2D<std::complex<double>>::uninitialised(1, transform.bins());
  auto q = Array2D<std::complex<double>>::uninitialised(1, transform.bins());
  auto sums = Array2D<std::complex<double>>::zeros(1, transform.bins());
  const auto take = [&](std::span<const double> row, std::ptrdiff_t first, std::size_t count,
                        Array2D<std::complex<double>>& spectrum) {
    std::ranges::fill(time.flat(), 0.0);
    const auto begin = std::max<std::ptrdiff_t>(first, 0);
    const auto end = std::min(first + static_cast<std::ptrdiff_t>(count),
                              static_cast<std::ptrdiff_t>(row.size()));
    if (begin < end) {
      std::copy(row.begin() + begin, row.begin() + end, time.data() + (begin - first));
    }
    transform.forward(time.data(), spectrum.data());
  };
  for (std::size_t c = 0; c < a.rows(); ++c) {
    for (std::size_t first = 0; first < b.columns(); first += block) {
      stop.check();
      const auto start = static_cast<std::ptrdiff_t>(first);
      take(a.row(c), start - static_cast<std::ptrdiff_t>(limit), transform.length(), p);
      take(b.row(c), start, block, q);
      for (std::size_t k = 0; k < sums.size(); ++k) {
        sums.data()[k] += p.data()[k] * std::conj(q.data()[k]);
      }
    }
  }
  transform.inverse(sums.data(), time.data());
  // Element j stands for lag j - limit.
  const auto magnitudes = time.flat().first(lags);
  std::size_t best = 0;
  for (std::size_t j = 1; j < lags; ++j) {
    if (std::abs(magnitudes[j]) > std::abs(magnitudes[best])) best = j;
  }
  return static_cast<std::ptrdiff_t>(best) - static_cast<std::ptrdiff_t>(limit);
}

StretchReader reader_of(AudioView audio) {
  return [audio](std::size_t channel, std::size_t first, std::span<float> into) {
    const auto row = audio.row(channel);
    for (std::size_t i = 0; i < into.size(); ++i) {
      into[i] = first + i < row.size() ? static_cast<float>(row[first + i]) : 0.0F;
    }
  };
}

}  // namespace verdel::internal
