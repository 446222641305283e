#include "chain/chain_lag.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <numeric>
#include <utility>

#include "chain/spectral_products.hpp"
#include "signal/instruction_sets.hpp"
#include "signal/sums.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

constexpr double kFrameSeconds = 3.0;
// A long song is looked at in so many places, evenly spread; more do not sharpen the peak.
constexpr std::size_t kMostFrames = 32;
constexpr std::size_t kMostLoudFrames = 16;  // of those, for a single tap
constexpr std::size_t kFramesPerTask = 4;
constexpr std::size_t kBlocksPerTask = 8;  // of a plain cross-correlation
constexpr double kLeastShare = 1e-8;       // of the loudest bin, that a bin must hold to count

using Complex = std::complex<float>;

std::size_t lag_limit(int sr) {
  return static_cast<std::size_t>(kLongestChainLag * sr);
}

/// The place of the largest magnitude among the lags -limit .. limit of a circular correlation.
std::ptrdiff_t largest_lag(std::span<const float> circle, std::size_t limit) {
  const auto n = static_cast<std::ptrdiff_t>(circle.size());
  const auto most = static_cast<std::ptrdiff_t>(limit);
  std::ptrdiff_t best = 0;
  float largest = -1;
  for (std::ptrdiff_t lag = -most; lag <= most; ++lag) {
    const float value = std::abs(circle[static_cast<std::size_t>(lag < 0 ? lag + n : lag)]);
    if (value > largest) {
      largest = value;
      best = lag;
    }
  }
  return best;
}

std::vector<std::size_t> frame_starts(std::size_t frames, std::size_t frame) {
  const std::size_t hop = frame / 2;
  const std::size_t count = frames <= frame ? 1 : (frames - frame) / hop + 1;
  const std::size_t taken = std::min(count, kMostFrames);
  std::vector<std::size_t> starts(taken);
  for (std::size_t i = 0; i < taken; ++i) starts[i] = i * count / taken * hop;
  return starts;
}

VERDEL_INLINE void add_filtered(const float* x, const float* h, std::size_t bins, float* sum) {
  for (std::size_t k = 0; k < bins; ++k) {
    sum[2 * k] += x[2 * k] * h[2 * k] - x[2 * k + 1] * h[2 * k + 1];
    sum[2 * k + 1] += x[2 * k] * h[2 * k + 1] + x[2 * k + 1] * h[2 * k];
  }
}

/// b, in so much as `share` says, is added to a first.
VERDEL_INLINE void add_cross(const float* a, const float* b, float share, std::size_t bins,
                             float* __restrict re, float* __restrict im, float* __restrict a_power,
                             float* __restrict b_power) {
  for (std::size_t k = 0; k < bins; ++k) {
    const float b_re = b[2 * k], b_im = b[2 * k + 1];
    const float a_re = a[2 * k] + share * b_re, a_im = a[2 * k + 1] + share * b_im;
    re[k] += a_re * b_re + a_im * b_im;
    im[k] += a_im * b_re - a_re * b_im;
    a_power[k] += a_re * a_re + a_im * a_im;
    b_power[k] += b_re * b_re + b_im * b_im;
  }
}

const float* reals(const Array2D<Complex>& spectrum) {
  return reinterpret_cast<const float*>(spectrum.data());
}

template <class View>
StretchReader read_from(View audio, std::ptrdiff_t lag) {
  return [audio, lag](std::size_t channel, std::size_t first, std::span<float> into) {
    const auto row = audio.row(channel);
    const auto begin = static_cast<std::ptrdiff_t>(first) - lag;
    const auto size = static_cast<std::ptrdiff_t>(row.size());
    const auto from = std::clamp<std::ptrdiff_t>(begin, 0, size);
    const auto to = std::clamp(begin + static_cast<std::ptrdiff_t>(into.size()), from, size);
    std::ranges::fill(into, 0.0F);
    if (from == to) return;
    std::transform(row.begin() + from, row.begin() + to, into.begin() + (from - begin),
                   [](auto sample) { return static_cast<float>(sample); });
  };
}

}  // namespace

/// Per bin: re and im of a conj b, the powers of a and of b.
struct CoherentLag::Sums {
  Array2D<float> rows;

  void add(const Sums& other) {
    for (std::size_t i = 0; i < rows.size(); ++i) rows.data()[i] += other.rows.data()[i];
  }
};

/// Room for the work on one frame.
struct CoherentLag::Scratch {
  Array2D<float> time;
  std::vector<Spectrum> input;
  Spectrum filtered;

  explicit Scratch(const CoherentLag& of)
      : time(Array2D<float>::uninitialised(1, of.transform_.length())),
        filtered(Spectrum::uninitialised(1, of.transform_.bins())) {
    for (std::size_t c = 0; c < of.job_.mix.rows(); ++c) {
      input.push_back(Spectrum::uninitialised(1, of.transform_.bins()));
    }
  }
};

CoherentLag::CoherentLag(const ChainJob& job, const StretchReader& a)
    : job_(job),
      transform_(std::bit_ceil(static_cast<std::size_t>(std::ceil(kFrameSeconds * job.sr)))),
      starts_(frame_starts(job.mix.columns(), transform_.length())),
      a_(starts_.size()),
      scratches_(std::make_unique<ScratchPool<Scratch>>(
          [this] { return std::make_unique<Scratch>(*this); })) {
  for (const double value : get_window(transform_.length())) {
    window_.push_back(static_cast<float>(value));
  }
  run_indexed(job_.pool, starts_.size(), [&](std::size_t frame) {
    const auto lease = scratches_->lease();
    for (std::size_t c = 0; c < job_.mix.rows(); ++c) {
      a_[frame].push_back(Spectrum::uninitialised(1, transform_.bins()));
      transform(a, frame, c, (*lease).time, a_[frame][c]);
    }
  });
}

CoherentLag::~CoherentLag() = default;

void CoherentLag::transform(const StretchReader& read, std::size_t frame, std::size_t channel,
                            Array2D<float>& time, Spectrum& into) const {
  job_.stop.check();
  constexpr std::size_t kStretch = 4096;
  for (std::size_t done = 0; done < window_.size(); done += kStretch) {
    const auto part = time.flat().subspan(done, std::min(kStretch, window_.size() - done));
    read(channel, starts_[frame] + done, part);
    for (std::size_t i = 0; i < part.size(); ++i) part[i] *= window_[done + i];
  }
  transform_.forward(time.data(), into.data());
}

void CoherentLag::add_frame(std::size_t frame, const StretchReader& b, const LagFilters& filters,
                            float share_in_a, Scratch& scratch, Sums& sums) const {
  const std::size_t channels = job_.mix.rows(), bins = transform_.bins();
  for (std::size_t c = 0; c < channels; ++c) transform(b, frame, c, scratch.time, scratch.input[c]);
  for (std::size_t out = 0; out < channels; ++out) {
    const Spectrum* heard = &scratch.input[out];
    if (!filters.empty()) {
      heard = &scratch.filtered;
      std::ranges::fill(scratch.filtered.flat(), Complex());
      for (std::size_t in = 0; in < channels; ++in) {
        const Spectrum& filter = filters[out * channels + in];
        if (filter.empty()) continue;
        run_kernel<add_filtered>(reals(scratch.input[in]), reals(filter), bins,
                                 reinterpret_cast<float*>(scratch.filtered.data()));
      }
    }
    run_kernel<add_cross>(reals(a_[frame][out]), reals(*heard), share_in_a, bins,
                          sums.rows.row(0).data(), sums.rows.row(1).data(), sums.rows.row(2).data(),
                          sums.rows.row(3).data());
  }
}

std::ptrdiff_t CoherentLag::find(const std::vector<std::size_t>& frames, const StretchReader& b,
                                 const LagFilters& filters, float share_in_a) const {
  std::vector<Sums> sums((frames.size() + kFramesPerTask - 1) / kFramesPerTask);
  run_indexed(job_.pool, sums.size(), [&](std::size_t task) {
    const auto lease = scratches_->lease();
    sums[task].rows = Array2D<float>::zeros(4, transform_.bins());
    const std::size_t first = task * kFramesPerTask;
    const std::size_t stop = std::min(frames.size(), first + kFramesPerTask);
    for (std::size_t i = first; i < stop; ++i) {
      add_frame(frames[i], b, filters, share_in_a, *lease, sums[task]);
    }
  });
  for (std::size_t task = 1; task < sums.size(); ++task) sums.front().add(sums[task]);
  return peak_of(sums.front());
}

std::vector<std::size_t> CoherentLag::all_frames() const {
  std::vector<std::size_t> frames(starts_.size());
  std::iota(frames.begin(), frames.end(), std::size_t{0});
  return frames;
}

std::vector<std::size_t> CoherentLag::loudest_frames(HeardView audio) const {
  std::vector<double> energies(starts_.size());
  run_indexed(job_.pool, starts_.size(), [&](std::size_t frame) {
    const std::size_t first = std::min(starts_[frame], audio.columns());
    const std::size_t count = std::min(transform_.length(), audio.columns() - first);
    for (std::size_t c = 0; c < audio.rows(); ++c) {
      energies[frame] += sum_of_squares(audio.row(c).subspan(first, count));
    }
  });
  auto frames = all_frames();
  std::ranges::stable_sort(frames, std::greater<>(), [&](std::size_t i) { return energies[i]; });
  frames.resize(std::min(frames.size(), kMostLoudFrames));
  std::ranges::sort(frames);
  return frames;
}

std::ptrdiff_t CoherentLag::peak_of(const Sums& sums) const {
  const auto re = sums.rows.row(0), im = sums.rows.row(1);
  const auto a = sums.rows.row(2), b = sums.rows.row(3);
  const auto least = [](std::span<const float> powers) {
    return kLeastShare * static_cast<double>(*std::ranges::max_element(powers));
  };
  const double a_least = least(a), b_least = least(b);
  if (a_least == 0.0 || b_least == 0.0) return 0;
  auto spectrum = Spectrum::zeros(1, transform_.bins());
  for (std::size_t k = 0; k < a.size(); ++k) {
    const auto a_power = static_cast<double>(a[k]), b_power = static_cast<double>(b[k]);
    if (!(a_power > a_least && b_power > b_least)) continue;
    const auto weight = static_cast<float>(1.0 / std::sqrt(a_power * b_power));
    spectrum.data()[k] = weight * Complex(re[k], im[k]);
  }
  auto circle = Array2D<float>::uninitialised(1, transform_.length());
  transform_.inverse(spectrum.data(), circle.data());
  return largest_lag(circle.flat(), lag_limit(job_.sr));
}

std::ptrdiff_t CoherentLag::against(const StretchReader& b) const {
  return find(all_frames(), b, {}, 0.0F);
}

std::ptrdiff_t CoherentLag::of_part(const std::vector<std::size_t>& frames,
                                    const StretchReader& part, const LagFilters& filters) const {
  return find(frames, part, filters, 1.0F);
}

LagFilters CoherentLag::filters_of(const ChainFir& fir) const {
  // No delay where the filter's centre is.
  const std::size_t n = transform_.length();
  LagFilters filters(fir.responses.size());
  auto time = Array2D<float>::uninitialised(1, n);
  for (std::size_t i = 0; i < filters.size(); ++i) {
    const auto& response = fir.responses[i];
    if (std::ranges::all_of(response, [](double v) { return v == 0.0; })) continue;
    std::ranges::fill(time.flat(), 0.0F);
    for (std::size_t k = 0; k < response.size(); ++k) {
      time.data()[(k + n - fir.centre) % n] = static_cast<float>(response[k]);
    }
    filters[i] = Spectrum::uninitialised(1, transform_.bins());
    transform_.forward(time.data(), filters[i].data());
  }
  return filters;
}

std::ptrdiff_t plain_lag(AudioView a, HeardView b, const ChainJob& job) {
  // In blocks of b against their surroundings in a: the sums of one transform of all, in bounded
  // memory.
  const std::size_t limit = lag_limit(job.sr), lags = 2 * limit + 1;
  const RealTransform<float> transform(std::bit_ceil(std::max<std::size_t>(16384, 4 * lags)));
  const std::size_t block = transform.length() - lags, bins = transform.bins();
  const std::size_t blocks = (b.columns() + block - 1) / block;
  const std::size_t tasks = (blocks + kBlocksPerTask - 1) / kBlocksPerTask;
  const StretchReader read_a = reader_of(a, static_cast<std::ptrdiff_t>(limit));
  const StretchReader read_b = reader_of(b);
  std::vector<Array2D<Complex>> sums(a.rows() * tasks);
  run_indexed(job.pool, sums.size(), [&](std::size_t task) {
    const std::size_t channel = task / tasks, from = task % tasks * kBlocksPerTask;
    auto time = Array2D<float>::uninitialised(1, transform.length());
    auto p = Array2D<Complex>::uninitialised(1, bins), q = Array2D<Complex>::uninitialised(1, bins);
    sums[task] = Array2D<Complex>::zeros(1, bins);
    for (std::size_t i = from; i < std::min(blocks, from + kBlocksPerTask); ++i) {
      job.stop.check();
      read_a(channel, i * block, time.flat());
      transform.forward(time.data(), p.data());
      std::ranges::fill(time.flat(), 0.0F);
      read_b(channel, i * block, time.flat().first(block));
      transform.forward(time.data(), q.data());
      add_correlation(q.flat(), p.flat(), sums[task].flat());
    }
  });
  for (std::size_t task = 1; task < sums.size(); ++task) {
    for (std::size_t k = 0; k < bins; ++k) sums.front().data()[k] += sums[task].data()[k];
  }
  auto time = Array2D<float>::uninitialised(1, transform.length());
  transform.inverse(sums.front().data(), time.data());
  // Element j stands for lag j - limit.
  const auto magnitudes = time.flat().first(lags);
  std::size_t best = 0;
  for (std::size_t j = 1; j < lags; ++j) {
    if (std::abs(magnitudes[j]) > std::abs(magnitudes[best])) best = j;
  }
  return static_cast<std::ptrdiff_t>(best) - static_cast<std::ptrdiff_t>(limit);
}

StretchReader reader_of(AudioView audio, std::ptrdiff_t lag) {
  return read_from(audio, lag);
}

StretchReader reader_of(HeardView audio, std::ptrdiff_t lag) {
  return read_from(audio, lag);
}

StretchReader under_gain(const GainCurve& gain, StretchReader read) {
  return [&gain, read = std::move(read)](std::size_t channel, std::size_t first,
                                         std::span<float> into) {
    constexpr std::size_t kStretch = 4096;
    std::array<float, kStretch> room;
    read(channel, first, into);
    for (std::size_t done = 0; done < into.size(); done += kStretch) {
      const auto part = into.subspan(done, std::min(kStretch, into.size() - done));
      const auto gains = std::span(room).first(part.size());
      gain.read(channel, first + done, gains);
      for (std::size_t i = 0; i < part.size(); ++i) part[i] *= gains[i];
    }
  };
}

}  // namespace verdel::internal
