#include "chain/fold_sums.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <numeric>
#include <span>

#include "signal/instruction_sets.hpp"
#include "signal/sums.hpp"
#include "signal/transforms.hpp"
#include "signal/windows.hpp"
#include "support/scratch_pool.hpp"

namespace verdel::internal {
namespace {

constexpr double kBlockSeconds = 2.0;
constexpr double kFirstWeight = 20.0;
// A median over so many frames, evenly spread, is one over all of them for every purpose here.
constexpr std::size_t kMostMedianFrames = 1024;
// A first filter, by which single taps are lined up, needs no more than these, and for medians:
constexpr std::size_t kMostRoughFrames = 1024, kMostRoughMedianFrames = 256;

constexpr std::size_t kPowersPerTask = 32, kMediansPerTask = 16;
constexpr std::size_t kBinsPerChosen = 256;  // the steps between chosen bins grow by one in so many

using Spectrum = Array2D<std::complex<float>>;

/// Some bins, dense enough that weights run straight between them, and what is averaged around
/// each: a sixth of an octave and a bin and a half on either side.
struct Neighbourhood {
  std::vector<std::uint32_t> first, stop;  ///< by chosen bin
  std::vector<double> share;               ///< one over their number
  std::vector<std::uint32_t> below;        ///< by bin, the chosen one that it is at or above
  std::vector<double> toward;              ///< by bin, 0 .. 1, the next one

  explicit Neighbourhood(std::size_t bins) {
    std::vector<std::size_t> chosen;
    for (std::size_t k = 0; k + 1 < bins; k += 1 + k / kBinsPerChosen) chosen.push_back(k);
    chosen.push_back(bins - 1);
    const double sixth = std::exp2(1.0 / 6.0);
    for (const std::size_t k : chosen) {
      const auto bin = static_cast<double>(k), last = static_cast<double>(bins - 1);
      first.push_back(static_cast<std::uint32_t>(std::max(std::floor(bin / sixth - 1.5), 0.0)));
      stop.push_back(1 + static_cast<std::uint32_t>(std::min(last, std::ceil(bin * sixth + 1.5))));
      share.push_back(1.0 / static_cast<double>(stop.back() - first.back()));
    }
    for (std::uint32_t i = 0; i + 1 < chosen.size(); ++i) {
      const auto steps = static_cast<double>(chosen[i + 1] - chosen[i]);
      for (std::size_t k = chosen[i]; k < chosen[i + 1]; ++k) {
        below.push_back(i);
        toward.push_back(static_cast<double>(k - chosen[i]) / steps);
      }
    }
    below.push_back(static_cast<std::uint32_t>(chosen.size() - 2));
    toward.push_back(1.0);
  }
  std::size_t size() const { return share.size(); }
};

VERDEL_INLINE void window_mix(const double* mix, std::span<const float> window, float* time) {
  for (std::size_t i = 0; i < window.size(); ++i) time[i] = window[i] * static_cast<float>(mix[i]);
}

VERDEL_INLINE void window_rest(const double* mix, const float* heard, const float* gain,
                               std::span<const float> window, float* time) {
  for (std::size_t i = 0; i < window.size(); ++i) {
    const double explained = static_cast<double>(gain[i]) * static_cast<double>(heard[i]);
    time[i] = window[i] * static_cast<float>(mix[i] - explained);
  }
}

VERDEL_INLINE void window_source(const float* x, const float* gain, std::span<const float> window,
                                 float* time) {
  for (std::size_t i = 0; i < window.size(); ++i) time[i] = window[i] * gain[i] * x[i];
}

/// Reads windowed frames of products of signals and transforms them.
class Frames {
 public:
  Frames(const FitSignals& signals, std::size_t frame, const ChainJob& job)
      : signals_(signals), job_(job), transform_(frame) {
    for (const double value : get_window(frame)) window_.push_back(static_cast<float>(value));
  }

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
  void read_gain(std::size_t channel, std::size_t frame, std::span<float> gain) const {
    signals_.gain.read(channel, frame * hop(), gain);
  }
  void mix(std::size_t channel, std::size_t frame, Array2D<float>& time, Spectrum& out) const {
    run_kernel<window_mix>(job_.mix.row(channel).data() + frame * hop(), window(), time.data());
    transform_.forward(time.data(), out.data());
  }
  void rest(std::size_t channel, std::size_t frame, std::span<const float> gain,
            Array2D<float>& time, Spectrum& out) const {
    run_kernel<window_rest>(job_.mix.row(channel).data() + frame * hop(),
                            signals_.y.row(channel).data() + frame * hop(), gain.data(), window(),
                            time.data());
    transform_.forward(time.data(), out.data());
  }
  void source(std::size_t from, std::size_t frame, std::span<const float> gain,
              Array2D<float>& time, Spectrum& out) const {
    run_kernel<window_source>(signals_.x.row(from).data() + frame * hop(), gain.data(), window(),
                              time.data());
    transform_.forward(time.data(), out.data());
  }

 private:
  std::span<const float> window() const { return window_; }

  const FitSignals& signals_;
  const ChainJob& job_;
  RealTransform<float> transform_;
  std::vector<float> window_;
};

/// Room for the work on one frame.
struct Scratch {
  Array2D<float> time;
  Spectrum rest, own, other;
  std::vector<float> gain, powers;
  std::vector<double> sums, weights;
  std::vector<double> smooth;  ///< at the chosen bins

  Scratch(const Frames& frames, const Neighbourhood& around)
      : time(Array2D<float>::uninitialised(1, 2 * frames.hop())),
        rest(Spectrum::uninitialised(1, frames.bins())),
        own(Spectrum::uninitialised(1, frames.bins())),
        other(Spectrum::uninitialised(1, frames.bins())),
        gain(2 * frames.hop()),
        powers(frames.bins()),
        sums(frames.bins() + 1),
        weights(frames.bins()),
        smooth(around.size()) {}
};

const float* reals(const Spectrum& spectrum) {
  return reinterpret_cast<const float*>(spectrum.data());
}

VERDEL_INLINE void take_powers(const float* spectrum, std::span<float> powers) {
  for (std::size_t k = 0; k < powers.size(); ++k) {
    const float re = spectrum[2 * k], im = spectrum[2 * k + 1];
    powers[k] = re * re + im * im;
  }
}

/// scratch.smooth = mean of the squared magnitude around each chosen bin.
void smooth_power(const Spectrum& spectrum, const Neighbourhood& around, Scratch& scratch) {
  run_kernel<take_powers>(reals(spectrum), std::span(scratch.powers));
  double sum = 0.0;
  for (std::size_t k = 0; k < scratch.powers.size(); ++k) {
    sum += static_cast<double>(scratch.powers[k]);
    scratch.sums[k + 1] = sum;
  }
  for (std::size_t i = 0; i < around.size(); ++i) {
    scratch.smooth[i] =
        (scratch.sums[around.stop[i]] - scratch.sums[around.first[i]]) * around.share[i];
  }
}

/// Values at the chosen bins, with straight lines between.
VERDEL_INLINE void draw(const double* values, const Neighbourhood& around, std::span<double> line) {
  const std::uint32_t* const below = around.below.data();
  const double* const toward = around.toward.data();
  for (std::size_t k = 0; k < line.size(); ++k) {
    const double from = values[below[k]], to = values[below[k] + 1];
    line[k] = from + toward[k] * (to - from);
  }
}

/// What all tasks of one step share.
struct Step {
  const FitSignals& signals;
  const ChainJob& job;
  Frames frames;
  Neighbourhood around;

  Step(const FitSignals& given, std::size_t frame, const ChainJob& of)
      : signals(given), job(of), frames(given, frame, of), around(frames.bins()) {}
  void work(const std::function<void(Scratch& scratch)>& on) const {
    const auto lease = scratches_.lease();
    on(*lease);
  }

 private:
  mutable ScratchPool<Scratch> scratches_{
      [this] { return std::make_unique<Scratch>(frames, around); }};
};

/// scratch.smooth of a frame, and in scratch.rest what it is of: the rest, or in a first step the
/// mix.
void take_powers_of(const Step& step, std::size_t channel, std::size_t frame, Scratch& scratch) {
  step.frames.read_gain(channel, frame, scratch.gain);
  if (step.signals.first) {
    step.frames.mix(channel, frame, scratch.time, scratch.rest);
  } else {
    step.frames.rest(channel, frame, scratch.gain, scratch.time, scratch.rest);
  }
  smooth_power(scratch.rest, step.around, scratch);
}

/// Smoothed powers of a channel's frames, evenly spread, [chosen bins][frames].
Array2D<float> smoothed_powers(const Step& step, std::size_t channel) {
  const std::size_t most = step.signals.rough ? kMostRoughMedianFrames : kMostMedianFrames;
  const std::size_t count = step.frames.count(), taken = std::min(count, most);
  auto powers = Array2D<float>::uninitialised(step.around.size(), taken);
  const std::size_t tasks = (taken + kPowersPerTask - 1) / kPowersPerTask;
  run_indexed(step.job.pool, tasks, [&](std::size_t task) {
    step.work([&](Scratch& scratch) {
      const std::size_t stop = std::min(taken, (task + 1) * kPowersPerTask);
      for (std::size_t i = task * kPowersPerTask; i < stop; ++i) {
        step.job.stop.check();
        take_powers_of(step, channel, i * count / taken, scratch);
        for (std::size_t k = 0; k < powers.rows(); ++k) {
          powers.row(k)[i] = static_cast<float>(scratch.smooth[k]);
        }
      }
    });
  });
  return powers;
}

double median_of(std::span<float> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  const auto upper = static_cast<double>(*middle);
  if (values.size() % 2 == 1) return upper;
  return 0.5 * (upper + static_cast<double>(*std::max_element(values.begin(), middle)));
}

/// What the weights of a channel have in common, at the chosen bins: median and a tenth of the mean
/// of the smoothed powers, and what keeps them finite.
std::vector<double> common_power(const Step& step, std::size_t channel) {
  auto powers = smoothed_powers(step, channel);
  const std::size_t count = powers.rows();
  std::vector<double> common(count), mean(count);
  run_indexed(
      step.job.pool, (count + kMediansPerTask - 1) / kMediansPerTask, [&](std::size_t task) {
        step.job.stop.check();
        const std::size_t stop = std::min(count, (task + 1) * kMediansPerTask);
        for (std::size_t k = task * kMediansPerTask; k < stop; ++k) {
          const auto row = powers.row(k);
          mean[k] = std::accumulate(row.begin(), row.end(), 0.0) / static_cast<double>(row.size());
          common[k] = median_of(row) + 0.1 * mean[k];
        }
      });
  const double overall =
      std::accumulate(mean.begin(), mean.end(), 0.0) / static_cast<double>(count);
  for (double& value : common) value += 1e-12 * overall + 1e-20;
  return common;
}

// The sums are in double precision, in which products of single precision are exact: what two
// sources have in common is then never more than either has, however alike they are.

VERDEL_INLINE double wide(float value) {
  return static_cast<double>(value);
}

/// power += |p|^2 and re, im += conj(p) times q, weighted.
VERDEL_INLINE void add_source(const float* p, const float* q, std::span<const double> weights,
                              double* __restrict power, double* __restrict re,
                              double* __restrict im) {
  for (std::size_t k = 0; k < weights.size(); ++k) {
    const double a = wide(p[2 * k]), b = wide(p[2 * k + 1]);
    const double c = wide(q[2 * k]), d = wide(q[2 * k + 1]);
    power[k] += weights[k] * (a * a + b * b);
    re[k] += weights[k] * (a * c + b * d);
    im[k] += weights[k] * (a * d - b * c);
  }
}

VERDEL_INLINE void add_product(const float* p, const float* q, std::span<const double> weights,
                               double* __restrict re, double* __restrict im) {
  for (std::size_t k = 0; k < weights.size(); ++k) {
    const double a = wide(p[2 * k]), b = wide(p[2 * k + 1]);
    const double c = wide(q[2 * k]), d = wide(q[2 * k + 1]);
    re[k] += weights[k] * (a * c + b * d);
    im[k] += weights[k] * (a * d - b * c);
  }
}

VERDEL_INLINE double weighted_energy(const float* p, std::span<const double> weights) {
  const double* const w = weights.data();
  return lane_sum(
      weights.size(), [ p, w ](std::size_t k) __attribute__((always_inline)) {
        const double a = wide(p[2 * k]), b = wide(p[2 * k + 1]);
        return w[k] * (a * a + b * b);
      });
}

/// Rows of sums over frames, [8][bins].
enum SumRow : std::size_t { kOwn, kOwnRe, kOwnIm, kOther, kOtherRe, kOtherIm, kBothRe, kBothIm };

std::vector<std::complex<double>> paired(std::span<const double> re, std::span<const double> im) {
  std::vector<std::complex<double>> values(re.size());
  for (std::size_t k = 0; k < re.size(); ++k) values[k] = {re[k], im.empty() ? 0.0 : im[k]};
  return values;
}

ChannelFold fold_of(const Array2D<double>& sums, bool stereo) {
  ChannelFold fold;
  fold.between[0][0] = paired(sums.row(kOwn), {});
  fold.with_target[0] = paired(sums.row(kOwnRe), sums.row(kOwnIm));
  if (!stereo) return fold;
  fold.between[1][1] = paired(sums.row(kOther), {});
  fold.with_target[1] = paired(sums.row(kOtherRe), sums.row(kOtherIm));
  fold.between[0][1] = paired(sums.row(kBothRe), sums.row(kBothIm));
  fold.between[1][0] = fold.between[0][1];
  for (auto& value : fold.between[1][0]) value = std::conj(value);
  return fold;
}

/// The rest of a frame, and the weights of its cells.
void weigh_frame(const Step& step, std::size_t channel, std::size_t frame,
                 std::span<const double> common, Scratch& scratch) {
  take_powers_of(step, channel, frame, scratch);
  const double scale = 2.0 / 3.0 * (step.signals.first ? kFirstWeight : 1.0);
  for (std::size_t i = 0; i < common.size(); ++i) {
    scratch.smooth[i] = scale / (scratch.smooth[i] + common[i]);
  }
  run_kernel<draw>(scratch.smooth.data(), step.around, std::span(scratch.weights));
  if (step.signals.first) {
    step.frames.rest(channel, frame, scratch.gain, scratch.time, scratch.rest);
  }
}

void add_frame(const Step& step, std::size_t channel, std::size_t frame, Scratch& scratch,
               Array2D<double>& sums) {
  const std::span<const double> weights = scratch.weights;
  const auto add_from = [&](std::size_t from, Spectrum& source, SumRow power) {
    step.frames.source(from, frame, scratch.gain, scratch.time, source);
    run_kernel<add_source>(reals(source), reals(scratch.rest), weights, sums.row(power).data(),
                           sums.row(power + 1).data(), sums.row(power + 2).data());
  };
  add_from(channel, scratch.own, kOwn);
  if (step.signals.x.rows() != 2) return;
  add_from(1 - channel, scratch.other, kOther);
  run_kernel<add_product>(reals(scratch.own), reals(scratch.other), weights,
                          sums.row(kBothRe).data(), sums.row(kBothIm).data());
}

ChannelFold sum_fold(const Step& step, std::size_t channel, std::size_t fold,
                     std::span<const double> common) {
  const Frames& frames = step.frames;
  auto sums = Array2D<double>::zeros(8, frames.bins());
  double target = 0.0;
  const std::size_t stride = step.signals.rough ? 1 + frames.count() / kMostRoughFrames : 1;
  step.work([&](Scratch& scratch) {
    const std::span<const double> weights = scratch.weights;
    for (std::size_t frame = 0; frame < frames.count(); frame += stride) {
      if (frames.fold_of(frame) != fold) continue;
      step.job.stop.check();
      weigh_frame(step, channel, frame, common, scratch);
      target += run_kernel<weighted_energy>(reals(scratch.rest), weights);
      add_frame(step, channel, frame, scratch, sums);
    }
  });
  ChannelFold result = fold_of(sums, step.signals.x.rows() == 2);
  result.target = target;
  return result;
}

}  // namespace

FoldSums sum_folds(const FitSignals& signals, std::size_t frame, const ChainJob& job) {
  const Step step(signals, frame, job);
  const std::size_t channels = job.mix.rows();
  std::vector<std::vector<double>> common;
  for (std::size_t c = 0; c < channels; ++c) common.push_back(common_power(step, c));
  FoldSums sums;
  sums.channels_folds.resize(channels * kFolds);
  run_indexed(job.pool, channels * kFolds, [&](std::size_t task) {
    const std::size_t channel = task / kFolds;
    sums.channels_folds[task] = sum_fold(step, channel, task % kFolds, common[channel]);
  });
  return sums;
}

}  // namespace verdel::internal
