#include "chain/fine_gain.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <span>

#include "chain/gain_frames.hpp"
#include "chain/gain_sums.hpp"
#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

constexpr std::array<double, 4> kStiffness = {1e2, 1e3, 1e4, 1e5};
constexpr double kPrior = 1e-2;  // what a distance from 1 costs
constexpr double kSmallestFactor = 0.02, kLargestFactor = 50.0;
constexpr std::size_t kSamplesPerTask = 8192, kLeastFrames = 16;
constexpr double kSampledSeconds = 30.0;

using Factors = Array2D<double>;
using Spectrum = PairTransform::Spectrum;

/// t = gain * heard, e = mix - t.
VERDEL_INLINE void split(const double* __restrict mix, const float* __restrict heard,
                         const float* __restrict gain, std::size_t count, float* __restrict t,
                         float* __restrict e) {
  for (std::size_t i = 0; i < count; ++i) {
    const double explained = static_cast<double>(gain[i]) * static_cast<double>(heard[i]);
    t[i] = static_cast<float>(explained);
    e[i] = static_cast<float>(mix[i] - explained);
  }
}

/// Which frames a search looks at: tasks of neighbours, all of them, or a run of some in every so
/// many.
struct FrameChoice {
  static constexpr std::size_t kRun = 8;
  std::size_t all = 0, per_task = 1, every = 1;

  std::size_t tasks() const {
    const std::size_t of_all = (all + per_task - 1) / per_task, cycle = kRun * every;
    return of_all / cycle * kRun + std::min(kRun, of_all % cycle);
  }
  std::size_t first(std::size_t task) const {
    return (task / kRun * kRun * every + task % kRun) * per_task;
  }
  std::size_t count(std::size_t task) const { return std::min(per_task, all - first(task)); }
  std::size_t frames() const { return (tasks() - 1) * per_task + count(tasks() - 1); }
};

/// The search for the gain of one set of channels.
class Search {
 public:
  Search(const GainTarget& target, const GainPlan& plan, ChannelSet channels, std::size_t every,
         const ChainJob& job)
      : job_(job),
        target_(target),
        plan_(plan),
        channels_(channels),
        transform_(plan.frame),
        choice_{.all = plan.count(job.mix.columns()),
                .per_task = std::max(kLeastFrames, kSamplesPerTask / plan.hop()),
                .every = every},
        factors_(Factors::uninitialised(choice_.frames(), plan.bands())) {
    std::ranges::fill(factors_.flat(), 1.0);
    for (auto& sums : halves_) sums = sums_for_frames();
    plain_ = sums_for_frames();
  }

  /// Takes what the factors so far leave for noise, and adds up every frame by it.
  void measure() {
    measure_noise();
    add_up_frames();
  }

  /// What half of the bins leaves of the other half, for each stiffness, in terms of the noise.
  std::array<double, kStiffness.size()> judge() const {
    std::array<double, kStiffness.size()> costs{};
    run_indexed(job_.pool, kStiffness.size(), [&](std::size_t i) {
      auto factors = Factors::uninitialised(factors_.rows(), factors_.columns());
      for (const std::size_t finder : {0U, 1U}) {
        find_factors({finder}, kStiffness[i], factors);
        costs[i] += left(halves_[1 - finder], factors);
      }
    });
    return costs;
  }

  void choose(double stiffness) {
    find_factors({0, 1}, stiffness, factors_);
    for (double& factor : factors_.flat()) {
      factor = std::clamp(factor, kSmallestFactor, kLargestFactor);
    }
  }

  double rest() const {
    double sum = 0.0;
    for (std::size_t frame = 0; frame < plain_.rows(); ++frame) sum += *sums(plain_, frame).rest;
    return sum;
  }
  double left() const { return left(plain_, factors_); }
  Factors take_factors() { return std::move(factors_); }

 private:
  Array2D<double> sums_for_frames() const {
    return Array2D<double>::uninitialised(choice_.frames(), BandSums::size(plan_.bands()));
  }
  BandSums sums(const Array2D<double>& all, std::size_t frame) const {
    return {all.row(frame).data(), plan_.bands()};
  }
  double left(const Array2D<double>& all, const Factors& factors) const {
    double sum = 0.0;
    for (std::size_t frame = 0; frame < all.rows(); ++frame) {
      sum += sums(all, frame).left(factors.row(frame));
    }
    return sum;
  }

  struct Stretch {
    PairStretch e, t;
  };

  Stretch read_stretch(std::size_t first_frame, std::size_t count) const {
    const std::size_t samples = (count - 1) * plan_.hop() + plan_.frame;
    Stretch stretch{PairStretch(samples), PairStretch(samples)};
    std::vector<float> gain(samples);
    const auto fill = [&](std::size_t channel, std::size_t first, std::size_t length,
                          std::size_t at) {
      const std::size_t row = channel - channels_.first;
      target_.engine.read(channel, first, std::span(gain).first(length));
      run_kernel<split>(job_.mix.row(channel).data() + first,
                        target_.heard.row(channel).data() + first, gain.data(), length,
                        stretch.t.row(row) + at, stretch.e.row(row) + at);
    };
    for_each_channel_in(channels_, plan_.begin_of(first_frame), samples, job_.mix.columns(), fill);
    return stretch;
  }

  /// Calls work(index, stretch, at) for a task's frames; `index` counts the frames looked at, `at`
  /// is where the frame begins in the stretch.
  template <class Work>
  void for_each_frame(std::size_t task, Work work) const {
    const std::size_t count = choice_.count(task);
    const Stretch stretch = read_stretch(choice_.first(task), count);
    job_.stop.check();
    for (std::size_t i = 0; i < count; ++i) {
      work(task * choice_.per_task + i, stretch, i * plan_.hop());
    }
  }

  /// What the factors so far leave of each bin on average. One gain alone is sought twice; with
  /// bands, which are sought once, averaged over each.
  void measure_noise() {
    std::vector<std::vector<double>> left(choice_.tasks());
    run_indexed(job_.pool, left.size(), [&](std::size_t task) {
      Spectrum time = transform_.room(), spectrum = transform_.room();
      PowerSums powers(plan_.frame);
      for_each_frame(task, [&](std::size_t index, const Stretch& stretch, std::size_t at) {
        transform_.forward_less(stretch.e, factors_.row(index)[0] - 1.0, stretch.t, at, time,
                                spectrum);
        powers.add(spectrum);
      });
      left[task] = powers.by_bin();
    });
    noise_.assign(plan_.bins(), 0.0);
    for (const auto& bins : left) {
      for (std::size_t k = 0; k < bins.size(); ++k) noise_[k] += bins[k];
    }
    double sum = 0.0;
    for (double& value : noise_) {
      value /= static_cast<double>(choice_.frames());
      sum += value;
    }
    if (mean_rest_ == 0.0) mean_rest_ = sum / static_cast<double>(noise_.size());
    if (plan_.bands() > 1) average_over_bands(noise_);
    for (double& value : noise_) value += 1e-9 * mean_rest_ + 1e-18;
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

  void add_up_frames() {
    std::vector<double> weights;
    for (const double noise : noise_) weights.push_back(1.0 / noise);
    const BandSummer by_noise(plan_, weights);
    const BandSummer alike(plan_, std::vector<double>(noise_.size(), 1.0));
    run_indexed(job_.pool, choice_.tasks(), [&](std::size_t task) {
      Spectrum time = transform_.room(), e = transform_.room(), t = transform_.room();
      BinProducts products(plan_.frame);
      std::vector<double> odd(plain_.columns());
      for_each_frame(task, [&](std::size_t index, const Stretch& stretch, std::size_t at) {
        transform_.forward(stretch.e, at, time, e);
        transform_.forward(stretch.t, at, time, t);
        products.set(e, t);
        by_noise.add_up(products, halves_[0].row(index), halves_[1].row(index));
        const auto plain = plain_.row(index);
        alike.add_up(products, plain, odd);
        for (std::size_t i = 0; i < odd.size(); ++i) plain[i] += odd[i];
      });
    });
  }

  /// Band by band, over the halves given: least sum of weight (target / weight - r)^2 +
  /// kPrior (r - 1)^2 + stiffness (r[k] - r[k - 1])^2, a tridiagonal system (Thomas).
  void find_factors(std::initializer_list<std::size_t> halves, double stiffness,
                    Factors& factors) const {
    const std::size_t frames = factors.rows();
    std::vector<double> carried(frames), value(frames);
    for (std::size_t band = 0; band < plan_.bands(); ++band) {
      for (std::size_t frame = 0; frame < frames; ++frame) {
        double slope = 0.0, weight = 0.0;
        for (const std::size_t half : halves) {
          const BandSums part = sums(halves_[half], frame);
          slope += part.slope[band];
          weight += part.power[band] + part.coupling[band];
          if (band > 0) weight += part.coupling[band - 1];
        }
        double diagonal = weight + kPrior, right = slope + weight + kPrior;
        if (frame + 1 < frames) diagonal += stiffness;
        if (frame > 0) {
          diagonal += stiffness - stiffness * carried[frame - 1];
          right += stiffness * value[frame - 1];
        }
        const double inverse = 1.0 / diagonal;
        carried[frame] = stiffness * inverse;
        value[frame] = right * inverse;
      }
      double next = 0.0;
      for (std::size_t frame = frames; frame-- > 0;) {
        next = value[frame] + (frame + 1 < frames ? carried[frame] * next : 0.0);
        factors.row(frame)[band] = next;
      }
    }
  }

  const ChainJob& job_;
  const GainTarget& target_;
  const GainPlan& plan_;
  ChannelSet channels_;
  PairTransform transform_;
  FrameChoice choice_;
  Factors factors_;
  Array2D<double> halves_[2], plain_;  // [frames][BandSums]
  std::vector<double> noise_;          // [bins]
  double mean_rest_ = 0.0;
};

std::vector<Search> searches(const GainTarget& target, GainForm form, const GainPlan& plan,
                             std::size_t every, const ChainJob& job) {
  std::vector<Search> parts;
  const std::size_t channels = job.mix.rows(), at_once = form.apart ? 1 : channels;
  for (std::size_t first = 0; first < channels; first += at_once) {
    parts.emplace_back(target, plan, ChannelSet{first, at_once}, every, job);
  }
  return parts;
}

/// One turn of every part; they share the stiffness.
double take_turn(std::vector<Search>& parts) {
  std::array<double, kStiffness.size()> costs{};
  for (Search& part : parts) {
    part.measure();
    const auto own = part.judge();
    for (std::size_t i = 0; i < costs.size(); ++i) costs[i] += own[i];
  }
  const auto best = std::ranges::min_element(costs) - costs.begin();
  const double stiffness = kStiffness[static_cast<std::size_t>(best)];
  for (Search& part : parts) part.choose(stiffness);
  return stiffness;
}

/// One gain for all frequencies is sought twice: what the first leaves is a better measure of
/// noise.
double take_turns(std::vector<Search>& parts, GainForm form) {
  const double stiffness = take_turn(parts);
  return form.in_bands ? stiffness : take_turn(parts);
}

}  // namespace

FineGain find_fine_gain(const GainTarget& target, GainForm form, const ChainJob& job) {
  const GainPlan plan(form.in_bands, job.sr);
  auto parts = searches(target, form, plan, 1, job);
  FineGain gain{.in_bands = form.in_bands,
                .frame = plan.frame,
                .hop = plan.hop(),
                .stiffness = take_turns(parts, form),
                .centres = plan.centres,
                .factors = {},
                .engine = {}};
  for (Search& part : parts) gain.factors.push_back(part.take_factors());
  return gain;
}

double expected_fall(const GainTarget& target, GainForm form, const ChainJob& job) {
  const GainPlan plan(form.in_bands, job.sr);
  const double seconds = static_cast<double>(job.mix.columns()) / job.sr;
  const auto every = static_cast<std::size_t>(std::max(1.0, seconds / kSampledSeconds));
  auto parts = searches(target, form, plan, every, job);
  take_turns(parts, form);
  double rest = 0.0, left = 0.0;
  for (const Search& part : parts) {
    rest += part.rest();
    left += part.left();
  }
  return energy_db(rest / std::max(left, 1e-30));
}

void play_engine_along(const GainTarget& target, FineGain& gain) {
  const std::size_t frames = gain.factors.front().rows(), half = gain.frame / 2;
  const std::size_t last = target.heard.columns() - 1;
  gain.engine = Array2D<double>::uninitialised(target.heard.rows(), frames);
  for (std::size_t c = 0; c < gain.engine.rows(); ++c) {
    for (std::size_t k = 0; k < frames; ++k) {
      const std::size_t middle = std::max(k * gain.hop, half) - half;
      gain.engine.row(c)[k] = target.engine.at(c, std::min(middle, last));
    }
  }
}

}  // namespace verdel::internal
