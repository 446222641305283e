#include "chain/fine_gain.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>
#include <span>

#include "chain/chain_gain.hpp"
#include "signal/transforms.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

constexpr double kFineSeconds = 0.006, kBandedSeconds = 0.0464;
constexpr double kLowestCentreHz = 80.0, kHighestCentreHz = 18000.0;
constexpr std::array<double, 4> kStiffness = {1e2, 1e3, 1e4, 1e5};
constexpr double kPrior = 1e-2;  // what a distance from 1 costs
constexpr double kSmallestFactor = 0.02, kLargestFactor = 50.0;
constexpr std::size_t kFramesPerTask = 4096;

using Complex = std::complex<double>;
using Spectrum = Array2D<Complex>;

/// Which bands a bin lies between, and how near to the upper one; and which half it is in.
struct BandPlan {
  std::vector<double> centres;
  std::vector<std::size_t> lower;  ///< [bins]
  std::vector<double> toward;      ///< [bins], 0 .. 1: weight of band lower + 1
  std::vector<std::size_t> half;   ///< [bins], 0 or 1

  std::size_t bands() const { return centres.size(); }
  std::size_t upper(std::size_t bin) const { return std::min(lower[bin] + 1, bands() - 1); }
};

BandPlan plan_bands(std::size_t frame, int sr, bool in_bands) {
  const std::size_t bins = frame / 2 + 1;
  BandPlan plan;
  if (in_bands) {
    const double limit = std::min(0.5 * sr, kHighestCentreHz);
    for (double hz = kLowestCentreHz; hz < limit; hz *= 2.0) plan.centres.push_back(hz);
  }
  if (plan.centres.empty()) plan.centres = {1000.0};
  const auto last = static_cast<double>(plan.bands() - 1);
  for (std::size_t bin = 0; bin < bins; ++bin) {
    const double hz = static_cast<double>(bin) * sr / static_cast<double>(frame);
    const double place = std::clamp(std::log2(std::max(hz, 1.0) / plan.centres.front()), 0.0, last);
    plan.lower.push_back(static_cast<std::size_t>(place));
    plan.toward.push_back(place - std::floor(place));
    plan.half.push_back(bin / (in_bands ? 4 : 2) % 2);
  }
  return plan;
}

/// Frames of a channel under the root of a Hann window, a quarter apart. Frame k begins at sample
/// k * hop - frame, so that every sample is in four of them.
class FrameReader {
 public:
  explicit FrameReader(std::size_t frame) : transform_(frame), window_(get_window(frame)) {
    for (double& value : window_) value = std::sqrt(value);
  }
  std::size_t frame() const { return window_.size(); }
  std::size_t hop() const { return window_.size() / 4; }
  std::size_t bins() const { return transform_.bins(); }
  std::size_t count(std::size_t samples) const { return (samples + frame() + hop()) / hop() + 1; }
  const std::vector<double>& window() const { return window_; }
  const RealTransform<double>& transform() const { return transform_; }

  std::ptrdiff_t begin_of(std::size_t index) const {
    return static_cast<std::ptrdiff_t>(index * hop()) - static_cast<std::ptrdiff_t>(frame());
  }
  void transform_at(const double* samples, Array2D<double>& time, Spectrum& spectrum) const {
    for (std::size_t i = 0; i < frame(); ++i) time.data()[i] = window_[i] * samples[i];
    transform_.forward(time.data(), spectrum.data());
  }

 private:
  RealTransform<double> transform_;
  std::vector<double> window_;
};

/// One frame's cells, summed over the channels: m the mix, t what is heard under the engine's gain.
struct Cells {
  std::vector<double> gain_left;  ///< Re(m conj t) - |t|^2: what a larger factor would explain
  std::vector<double> power;      ///< |t|^2
  std::vector<double> rest;       ///< |m - t|^2

  explicit Cells(std::size_t bins) : gain_left(bins), power(bins), rest(bins) {}

  void clear() {
    std::ranges::fill(gain_left, 0.0);
    std::ranges::fill(power, 0.0);
    std::ranges::fill(rest, 0.0);
  }
  void add(const Spectrum& mix, const Spectrum& heard) {
    const auto* __restrict m = reinterpret_cast<const double*>(mix.data());
    const auto* __restrict t = reinterpret_cast<const double*>(heard.data());
    double* __restrict slope = gain_left.data(), * __restrict energy = power.data(), * __restrict left = rest.data();
    for (std::size_t k = 0; k < power.size(); ++k) {
      const double re = m[2 * k] - t[2 * k], im = m[2 * k + 1] - t[2 * k + 1];
      // Re(m conj t) - |t|^2 is Re((m - t) conj t).
      slope[k] += re * t[2 * k] + im * t[2 * k + 1];
      energy[k] += t[2 * k] * t[2 * k] + t[2 * k + 1] * t[2 * k + 1];
      left[k] += re * re + im * im;
    }
  }

  /// What is left of a bin under the factor 1 + d.
  double left(std::size_t bin, double d) const {
    return rest[bin] - 2.0 * d * gain_left[bin] + d * d * power[bin];
  }
};

/// What the choice of the factors needs of one frame and one half of its bins: with d = r - 1 by
/// band, sum of left / noise = rest - 2 d . slope + d . (tridiagonal of power, coupling) . d.
struct HalfFrame {
  double* slope;     ///< [bands]
  double* power;     ///< [bands]
  double* coupling;  ///< [bands], band b with b + 1
  double* rest;      ///< one value
};

/// The search for one gain.
class Search {
 public:
  Search(AudioView heard, bool in_bands, const ChainJob& job)
      : job_(job),
        in_bands_(in_bands),
        reader_(frame_of(in_bands, job.sr)),
        plan_(plan_bands(reader_.frame(), job.sr, in_bands)),
        frames_(reader_.count(job.mix.columns())),
        heard_(heard),
        gain_(heard, kEngineGain, job),
        factors_(Array2D<double>::uninitialised(frames_, plan_.bands())) {
    std::ranges::fill(factors_.flat(), 1.0);
    for (auto& half : sums_) {
      half = Array2D<double>::uninitialised(frames_, 3 * plan_.bands() + 1);
    }
  }

  FineGain run() {
    measure_noise();
    double stiffness = 0.0;
    for (int turn = 0; turn < (in_bands_ ? 1 : 2); ++turn) {
      if (turn > 0) measure_noise();
      sum_halves();
      stiffness = best_stiffness();
      find_factors({0, 1}, stiffness, factors_);
      for (double& factor : factors_.flat()) {
        factor = std::clamp(factor, kSmallestFactor, kLargestFactor);
      }
    }
    return {.in_bands = in_bands_,
            .frame = reader_.frame(),
            .hop = reader_.hop(),
            .stiffness = stiffness,
            .centres = plan_.centres,
            .factors = std::move(factors_)};
  }

 private:
  static std::size_t frame_of(bool in_bands, int sr) {
    const double samples = (in_bands ? kBandedSeconds : kFineSeconds) * sr;
    return std::size_t{1} << static_cast<unsigned>(std::lround(std::log2(samples)));
  }

  /// The stretch of both signals that a task's frames lie in, silence around the song.
  struct Stretch {
    std::ptrdiff_t begin = 0;
    AudioArray mix, heard;  // [channels][samples]; heard under the engine's gain
  };

  Stretch read_stretch(std::size_t first_frame, std::size_t count) const {
    const std::size_t samples = (count - 1) * reader_.hop() + reader_.frame();
    Stretch stretch{.begin = reader_.begin_of(first_frame),
                    .mix = AudioArray::zeros(heard_.rows(), samples),
                    .heard = AudioArray::zeros(heard_.rows(), samples)};
    const auto size = static_cast<std::ptrdiff_t>(heard_.columns());
    const auto from = std::clamp<std::ptrdiff_t>(stretch.begin, 0, size);
    const auto to = std::clamp(stretch.begin + static_cast<std::ptrdiff_t>(samples), from, size);
    for (std::size_t c = 0; c < heard_.rows(); ++c) {
      for (std::ptrdiff_t at = from; at < to; ++at) {
        const auto i = static_cast<std::size_t>(at);
        const auto place = static_cast<std::size_t>(at - stretch.begin);
        stretch.mix.row(c)[place] = job_.mix.row(c)[i];
        stretch.heard.row(c)[place] = gain_.at(c, i) * heard_.row(c)[i];
      }
    }
    return stretch;
  }

  /// Calls work(task, frame, cells) for every frame, in tasks of consecutive frames.
  template <class Work>
  void for_each_frame(Work work) {
    const std::size_t tasks = (frames_ + kFramesPerTask - 1) / kFramesPerTask;
    run_indexed(job_.pool, tasks, [&](std::size_t task) {
      auto time = Array2D<double>::uninitialised(1, reader_.frame());
      auto m = Spectrum::uninitialised(1, reader_.bins());
      auto t = Spectrum::uninitialised(1, reader_.bins());
      Cells cells(reader_.bins());
      const std::size_t first = task * kFramesPerTask;
      const std::size_t end = std::min(frames_, first + kFramesPerTask);
      const Stretch stretch = read_stretch(first, end - first);
      for (std::size_t frame = first; frame < end; ++frame) {
        job_.stop.check();
        cells.clear();
        for (std::size_t c = 0; c < heard_.rows(); ++c) {
          const std::size_t at = (frame - first) * reader_.hop();
          reader_.transform_at(stretch.mix.row(c).data() + at, time, m);
          reader_.transform_at(stretch.heard.row(c).data() + at, time, t);
          cells.add(m, t);
        }
        work(task, frame, cells);
      }
    });
  }

  double distance(std::size_t frame, std::size_t bin) const {
    const auto row = factors_.row(frame);
    const double toward = plan_.toward[bin];
    return (1.0 - toward) * row[plan_.lower[bin]] + toward * row[plan_.upper(bin)] - 1.0;
  }

  /// What the factors so far leave of each bin on average; with bands, averaged over each.
  void measure_noise() {
    const std::size_t bins = reader_.bins();
    const std::size_t tasks = (frames_ + kFramesPerTask - 1) / kFramesPerTask;
    std::vector<std::vector<double>> left(tasks, std::vector<double>(bins));
    std::vector<double> rest(tasks);
    for_each_frame([&](std::size_t task, std::size_t frame, const Cells& cells) {
      for (std::size_t k = 0; k < bins; ++k) {
        left[task][k] += cells.left(k, distance(frame, k));
        rest[task] += cells.rest[k];
      }
    });
    noise_.assign(bins, 0.0);
    double mean_rest = 0.0;
    for (std::size_t task = 0; task < tasks; ++task) {
      for (std::size_t k = 0; k < bins; ++k) noise_[k] += left[task][k];
      mean_rest += rest[task];
    }
    const auto frames = static_cast<double>(frames_);
    for (double& value : noise_) value /= frames;
    mean_rest /= frames * static_cast<double>(bins);
    if (in_bands_) average_over_bands(noise_);
    for (double& value : noise_) value += 1e-9 * mean_rest + 1e-18;
  }

  void average_over_bands(std::vector<double>& values) const {
    std::vector<double> sums(plan_.bands()), weights(plan_.bands());
    for (std::size_t k = 0; k < values.size(); ++k) {
      const double toward = plan_.toward[k];
      sums[plan_.lower[k]] += (1.0 - toward) * values[k];
      weights[plan_.lower[k]] += 1.0 - toward;
      sums[plan_.upper(k)] += toward * values[k];
      weights[plan_.upper(k)] += toward;
    }
    for (std::size_t b = 0; b < sums.size(); ++b) sums[b] /= std::max(weights[b], 1e-30);
    for (std::size_t k = 0; k < values.size(); ++k) {
      const double toward = plan_.toward[k];
      values[k] = (1.0 - toward) * sums[plan_.lower[k]] + toward * sums[plan_.upper(k)];
    }
  }

  HalfFrame half_frame(std::size_t half, std::size_t frame) {
    double* const row = sums_[half].row(frame).data();
    const std::size_t bands = plan_.bands();
    return {row, row + bands, row + 2 * bands, row + 3 * bands};
  }

  void sum_halves() {
    for_each_frame([&](std::size_t, std::size_t frame, const Cells& cells) {
      HalfFrame halves[2] = {half_frame(0, frame), half_frame(1, frame)};
      for (const HalfFrame& half : halves) std::fill_n(half.slope, 3 * plan_.bands() + 1, 0.0);
      for (std::size_t k = 0; k < noise_.size(); ++k) {
        const HalfFrame& half = halves[plan_.half[k]];
        const std::size_t lower = plan_.lower[k], upper = plan_.upper(k);
        const double above = plan_.toward[k], below = 1.0 - above;
        const double slope = cells.gain_left[k] / noise_[k], power = cells.power[k] / noise_[k];
        half.slope[lower] += below * slope;
        half.slope[upper] += above * slope;
        half.power[lower] += below * below * power;
        half.power[upper] += above * above * power;
        half.coupling[lower] += below * above * power;
        *half.rest += cells.rest[k] / noise_[k];
      }
    });
  }

  double best_stiffness() {
    double best = 0.0, least = std::numeric_limits<double>::infinity();
    auto factors = Array2D<double>::uninitialised(frames_, plan_.bands());
    for (const double stiffness : kStiffness) {
      double cost = 0.0;
      for (const std::size_t finder : {0U, 1U}) {
        find_factors({finder}, stiffness, factors);
        cost += cost_of(1 - finder, factors);
      }
      if (!(cost < least)) continue;
      least = cost;
      best = stiffness;
    }
    return best;
  }

  double cost_of(std::size_t half, const Array2D<double>& factors) {
    double cost = 0.0;
    for (std::size_t frame = 0; frame < frames_; ++frame) {
      const HalfFrame sums = half_frame(half, frame);
      const auto r = factors.row(frame);
      cost += *sums.rest;
      for (std::size_t b = 0; b < r.size(); ++b) {
        const double d = r[b] - 1.0;
        cost += d * (d * sums.power[b] - 2.0 * sums.slope[b]);
        if (b + 1 < r.size()) cost += 2.0 * d * (r[b + 1] - 1.0) * sums.coupling[b];
      }
    }
    return cost;
  }

  /// Band by band, over the halves given: least sum of weight (target / weight - r)^2 +
  /// kPrior (r - 1)^2 + stiffness (r[k] - r[k - 1])^2, a tridiagonal system (Thomas).
  void find_factors(std::initializer_list<std::size_t> halves, double stiffness,
                    Array2D<double>& factors) {
    std::vector<double> carried(frames_), value(frames_);
    for (std::size_t band = 0; band < plan_.bands(); ++band) {
      for (std::size_t frame = 0; frame < frames_; ++frame) {
        double slope = 0.0, weight = 0.0;
        for (const std::size_t half : halves) {
          const HalfFrame sums = half_frame(half, frame);
          slope += sums.slope[band];
          weight += sums.power[band] + sums.coupling[band];
          if (band > 0) weight += sums.coupling[band - 1];
        }
        double diagonal = weight + kPrior, right = slope + weight + kPrior;
        if (frame + 1 < frames_) diagonal += stiffness;
        if (frame > 0) {
          diagonal += stiffness - stiffness * carried[frame - 1];
          right += stiffness * value[frame - 1];
        }
        carried[frame] = stiffness / diagonal;
        value[frame] = right / diagonal;
      }
      double next = 0.0;
      for (std::size_t frame = frames_; frame-- > 0;) {
        next = value[frame] + (frame + 1 < frames_ ? carried[frame] * next : 0.0);
        factors.row(frame)[band] = next;
      }
    }
  }

  const ChainJob& job_;
  bool in_bands_;
  FrameReader reader_;
  BandPlan plan_;
  std::size_t frames_;
  AudioView heard_;
  GainCurve gain_;
  Array2D<double> factors_, sums_[2];
  std::vector<double> noise_;
};

/// One gain for all frequencies: the factors under overlapping Hann windows, a hop at a time.
void play_broadband(std::span<const double> row, const FineGain& gain,
                    std::span<const double> window, std::span<double> result) {
  const std::size_t overlap = gain.frame / gain.hop;
  std::vector<double> factor(gain.hop);
  for (std::size_t first = 0; first < row.size(); first += gain.hop) {
    const std::size_t last = (first + gain.frame) / gain.hop;
    std::ranges::fill(factor, 0.0);
    for (std::size_t k = 0; k < overlap; ++k) {
      const double weight = gain.factors.row(last - k)[0] / (static_cast<double>(overlap) / 2.0);
      const double* const part = window.data() + k * gain.hop;
      for (std::size_t i = 0; i < gain.hop; ++i) factor[i] += weight * part[i];
    }
    const std::size_t count = std::min(gain.hop, row.size() - first);
    for (std::size_t i = 0; i < count; ++i) result[first + i] = factor[i] * row[first + i];
  }
}

void play_bands(std::span<const double> row, const FineGain& gain, const BandPlan& plan,
                const FrameReader& reader, std::span<double> result, const StopToken& stop) {
  const std::size_t frame = gain.frame, samples = row.size();
  // Silence around the song, so that every frame is whole.
  std::vector<double> input(frame), output(frame);
  auto time = Array2D<double>::uninitialised(1, frame);
  auto spectrum = Spectrum::uninitialised(1, reader.bins());
  const double scale = 2.0 / static_cast<double>(frame * (frame / gain.hop));
  for (std::size_t k = 0; k < gain.factors.rows(); ++k) {
    stop.check();
    const std::ptrdiff_t begin = reader.begin_of(k);
    // The last hop of the frame comes in, and what the first one holds afterwards is complete.
    std::copy(input.begin() + static_cast<std::ptrdiff_t>(gain.hop), input.end(), input.begin());
    const std::ptrdiff_t entering = begin + static_cast<std::ptrdiff_t>(frame - gain.hop);
    for (std::size_t i = 0; i < gain.hop; ++i) {
      const auto at = static_cast<std::size_t>(entering + static_cast<std::ptrdiff_t>(i));
      input[frame - gain.hop + i] = at < samples ? row[at] : 0.0;  // wraps round before the song
    }
    reader.transform_at(input.data(), time, spectrum);
    const auto factors = gain.factors.row(k);
    for (std::size_t bin = 0; bin < reader.bins(); ++bin) {
      spectrum.data()[bin] *= (1.0 - plan.toward[bin]) * factors[plan.lower[bin]] +
                              plan.toward[bin] * factors[plan.upper(bin)];
    }
    reader.transform().inverse(spectrum.data(), time.data());
    for (std::size_t i = 0; i < frame; ++i) {
      output[i] += scale * reader.window()[i] * time.data()[i];
    }
    for (std::size_t i = 0; i < gain.hop; ++i) {
      const auto at = static_cast<std::size_t>(begin + static_cast<std::ptrdiff_t>(i));
      if (at < samples) result[at] = output[i];
    }
    std::copy(output.begin() + static_cast<std::ptrdiff_t>(gain.hop), output.end(), output.begin());
    std::fill(output.end() - static_cast<std::ptrdiff_t>(gain.hop), output.end(), 0.0);
  }
}

}  // namespace

FineGain find_fine_gain(AudioView heard, bool in_bands, const ChainJob& job) {
  return Search(heard, in_bands, job).run();
}

AudioArray play(AudioView audio, const FineGain& gain, const ChainJob& job) {
  auto result = AudioArray::uninitialised(audio.rows(), audio.columns());
  const FrameReader reader(gain.frame);
  const BandPlan plan = plan_bands(gain.frame, job.sr, gain.in_bands);
  const std::vector<double> window = get_window(gain.frame);
  run_indexed(job.pool, audio.rows(), [&](std::size_t c) {
    if (gain.in_bands) {
      play_bands(audio.row(c), gain, plan, reader, result.row(c), job.stop);
    } else {
      play_broadband(audio.row(c), gain, window, result.row(c));
    }
  });
  return result;
}

}  // namespace verdel::internal
