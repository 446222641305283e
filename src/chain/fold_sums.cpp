#include "chain/fold_sums.hpp"

#include <algorithm>
#include <cmath>
#include <span>

#include "signal/transforms.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

constexpr double kBlockSeconds = 2.0;
constexpr double kFirstWeight = 20.0;
// A median over so many frames, evenly spread, is one over all of them for every purpose here.
constexpr std::size_t kMostMedianFrames = 1024;
// And a first filter, by which single taps are lined up, needs no more.
constexpr std::size_t kMostRoughFrames = 1024;

using Complex = std::complex<double>;
using Spectrum = Array2D<Complex>;

/// The bins on either side that are averaged: a sixth of an octave, and a bin and a half.
struct Neighbourhood {
  std::vector<std::size_t> first, stop;

  explicit Neighbourhood(std::size_t bins) : first(bins), stop(bins) {
    const double sixth = std::exp2(1.0 / 6.0);
    for (std::size_t k = 0; k < bins; ++k) {
      const auto bin = static_cast<double>(k);
      first[k] = static_cast<std::size_t>(std::max(std::floor(bin / sixth - 1.5), 0.0));
      stop[k] = 1 + std::min(bins - 1, static_cast<std::size_t>(std::ceil(bin * sixth + 1.5)));
    }
  }
};

/// Reads windowed frames of products of signals and transforms them.
class Frames {
 public:
  Frames(const FitSignals& signals, std::size_t frame, const ChainJob& job)
      : signals_(signals), job_(job), transform_(frame), window_(get_window(frame)) {}

  std::size_t hop() const { return window_.size() / 2; }
  std::size_t bins() const { return transform_.bins(); }
  std::size_t count() const {
    return job_.mix.columns() < window_.size() ? 0
                                               : (job_.mix.columns() - window_.size()) / hop() + 1;
  }
  std::size_t fold_of(std::size_t frame) const {
    const auto middle = static_cast<double>(frame * hop() + hop());
    return static_cast<std::size_t>(middle / job_.sr / kBlockSeconds) % kFolds;
  }

  /// The gain of a frame, to be handed to the two that need it.
  void read_gain(std::size_t channel, std::size_t frame, std::vector<double>& gain) const {
    const std::size_t first = frame * hop();
    for (std::size_t i = 0; i < gain.size(); ++i) gain[i] = signals_.gain.at(channel, first + i);
  }
  void mix(std::size_t channel, std::size_t frame, Array2D<double>& time, Spectrum& out) const {
    const double* mix = job_.mix.row(channel).data() + frame * hop();
    for (std::size_t i = 0; i < window_.size(); ++i) time.data()[i] = window_[i] * mix[i];
    transform_.forward(time.data(), out.data());
  }
  void rest(std::size_t channel, std::size_t frame, const std::vector<double>& gain,
            Array2D<double>& time, Spectrum& out) const {
    const double* mix = job_.mix.row(channel).data() + frame * hop();
    const double* y = signals_.y.row(channel).data() + frame * hop();
    for (std::size_t i = 0; i < window_.size(); ++i) {
      time.data()[i] = window_[i] * (mix[i] - gain[i] * y[i]);
    }
    transform_.forward(time.data(), out.data());
  }
  void source(std::size_t from, std::size_t frame, const std::vector<double>& gain,
              Array2D<double>& time, Spectrum& out) const {
    const double* x = signals_.x.row(from).data() + frame * hop();
    for (std::size_t i = 0; i < window_.size(); ++i) time.data()[i] = window_[i] * gain[i] * x[i];
    transform_.forward(time.data(), out.data());
  }

 private:
  const FitSignals& signals_;
  const ChainJob& job_;
  RealTransform<double> transform_;
  std::vector<double> window_;
};

/// Room for the work on one frame.
struct Scratch {
  Array2D<double> time;
  Spectrum rest, own, other;
  std::vector<double> gain, power, sums;

  explicit Scratch(const Frames& frames)
      : time(Array2D<double>::uninitialised(1, 2 * frames.hop())),
        rest(Spectrum::uninitialised(1, frames.bins())),
        own(Spectrum::uninitialised(1, frames.bins())),
        other(Spectrum::uninitialised(1, frames.bins())),
        gain(2 * frames.hop()),
        power(frames.bins()),
        sums(frames.bins() + 1) {}
};

/// power[k] = mean over a bin's neighbourhood of the squared magnitude.
void smooth_power(const Spectrum& spectrum, const Neighbourhood& around, Scratch& scratch) {
  for (std::size_t k = 0; k < scratch.power.size(); ++k) {
    scratch.sums[k + 1] = scratch.sums[k] + std::norm(spectrum.data()[k]);
  }
  for (std::size_t k = 0; k < scratch.power.size(); ++k) {
    scratch.power[k] = (scratch.sums[around.stop[k]] - scratch.sums[around.first[k]]) /
                       static_cast<double>(around.stop[k] - around.first[k]);
  }
}

/// Per bin what the weights of a channel have in common: median and a tenth of the mean of the
/// smoothed power, and what keeps them finite.
std::vector<double> common_power(const Frames& frames, std::size_t channel, bool of_mix,
                                 const Neighbourhood& around, const StopToken& stop) {
  const std::size_t count = frames.count(), bins = frames.bins();
  const std::size_t taken = std::min(count, kMostMedianFrames);
  auto powers = Array2D<float>::uninitialised(taken, bins);
  std::vector<double> mean(bins);
  Scratch scratch(frames);
  for (std::size_t i = 0; i < taken; ++i) {
    stop.check();
    const std::size_t frame = i * count / taken;
    if (of_mix) {
      frames.mix(channel, frame, scratch.time, scratch.rest);
    } else {
      frames.read_gain(channel, frame, scratch.gain);
      frames.rest(channel, frame, scratch.gain, scratch.time, scratch.rest);
    }
    smooth_power(scratch.rest, around, scratch);
    for (std::size_t k = 0; k < bins; ++k) {
      powers.row(i)[k] = static_cast<float>(scratch.power[k]);
      mean[k] += scratch.power[k] / static_cast<double>(taken);
    }
  }
  double overall = 0.0;
  for (const double value : mean) overall += value / static_cast<double>(bins);
  std::vector<double> common(bins);
  std::vector<float> column(taken);
  for (std::size_t k = 0; k < bins; ++k) {
    for (std::size_t i = 0; i < taken; ++i) column[i] = powers.row(i)[k];
    const auto middle = column.begin() + static_cast<std::ptrdiff_t>(taken / 2);
    std::nth_element(column.begin(), middle, column.end());
    double median = static_cast<double>(*middle);
    if (taken % 2 == 0) {
      median = 0.5 * (median + static_cast<double>(*std::max_element(column.begin(), middle)));
    }
    common[k] = median + 0.1 * mean[k] + 1e-12 * overall + 1e-20;
  }
  return common;
}

void add_products(const Spectrum& p, const Spectrum& q, std::span<const double> weights,
                  std::vector<Complex>& sums) {
  const auto* __restrict a = reinterpret_cast<const double*>(p.data());
  const auto* __restrict b = reinterpret_cast<const double*>(q.data());
  auto* __restrict to = reinterpret_cast<double*>(sums.data());
  for (std::size_t k = 0; k < weights.size(); ++k) {
    const double re = a[2 * k] * b[2 * k] + a[2 * k + 1] * b[2 * k + 1];
    const double im = a[2 * k] * b[2 * k + 1] - a[2 * k + 1] * b[2 * k];
    to[2 * k] += weights[k] * re;
    to[2 * k + 1] += weights[k] * im;
  }
}

ChannelFold sum_fold(const FitSignals& signals, const Frames& frames, std::size_t channel,
                     std::size_t fold, std::span<const double> common, const Neighbourhood& around,
                     const StopToken& stop) {
  const bool stereo = signals.x.rows() == 2;
  ChannelFold sums;
  for (std::size_t i = 0; i < (stereo ? 2 : 1); ++i) {
    sums.with_target[i].resize(frames.bins());
    for (std::size_t j = 0; j < (stereo ? 2 : 1); ++j) sums.between[i][j].resize(frames.bins());
  }
  Scratch scratch(frames);
  std::vector<double> weights(frames.bins());
  const std::size_t stride = signals.rough ? 1 + frames.count() / kMostRoughFrames : 1;
  for (std::size_t frame = 0; frame < frames.count(); frame += stride) {
    if (frames.fold_of(frame) != fold) continue;
    stop.check();
    frames.read_gain(channel, frame, scratch.gain);
    if (signals.first) {
      frames.mix(channel, frame, scratch.time, scratch.rest);
    } else {
      frames.rest(channel, frame, scratch.gain, scratch.time, scratch.rest);
    }
    smooth_power(scratch.rest, around, scratch);
    const double scale = 2.0 / 3.0 * (signals.first ? kFirstWeight : 1.0);
    for (std::size_t k = 0; k < weights.size(); ++k) {
      weights[k] = scale / (scratch.power[k] + common[k]);
    }
    if (signals.first) {
      frames.rest(channel, frame, scratch.gain, scratch.time, scratch.rest);
    }
    for (std::size_t k = 0; k < weights.size(); ++k) {
      sums.target += weights[k] * std::norm(scratch.rest.data()[k]);
    }
    frames.source(channel, frame, scratch.gain, scratch.time, scratch.own);
    add_products(scratch.own, scratch.rest, weights, sums.with_target[0]);
    add_products(scratch.own, scratch.own, weights, sums.between[0][0]);
    if (!stereo) continue;
    frames.source(1 - channel, frame, scratch.gain, scratch.time, scratch.other);
    add_products(scratch.other, scratch.rest, weights, sums.with_target[1]);
    add_products(scratch.own, scratch.other, weights, sums.between[0][1]);
    add_products(scratch.other, scratch.other, weights, sums.between[1][1]);
  }
  if (stereo) {
    for (std::size_t k = 0; k < frames.bins(); ++k) {
      sums.between[1][0][k] = std::conj(sums.between[0][1][k]);
    }
  }
  return sums;
}

}  // namespace

FoldSums sum_folds(const FitSignals& signals, std::size_t frame, const ChainJob& job) {
  const Frames frames(signals, frame, job);
  const Neighbourhood around(frames.bins());
  const std::size_t channels = job.mix.rows();
  std::vector<std::vector<double>> common(channels);
  run_indexed(job.pool, channels, [&](std::size_t c) {
    common[c] = common_power(frames, c, signals.first, around, job.stop);
  });
  FoldSums sums;
  sums.channels_folds.resize(channels * kFolds);
  run_indexed(job.pool, channels * kFolds, [&](std::size_t task) {
    const std::size_t channel = task / kFolds;
    sums.channels_folds[task] =
        sum_fold(signals, frames, channel, task % kFolds, common[channel], around, job.stop);
  });
  return sums;
}

}  // namespace verdel::internal
