#include "chain/gain_votes.hpp"

#include <algorithm>
#include <optional>
#include <span>

#include "chain/gain_frames.hpp"
#include "chain/gain_player.hpp"
#include "signal/instruction_sets.hpp"
#include "signal/sums.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kStretch = 8192, kFramesPerTask = 16;

/// How a change of a tap goes with what is left.
struct Change {
  double with_rest = 0.0, energy = 0.0;

  void add(const Change& other) {
    with_rest += other.with_rest;
    energy += other.energy;
  }
};
using Changes = std::vector<Change>;  // one per tap

/// What is left of the mix, and the engine's gain.
struct Rest {
  std::vector<float> gain, rest;

  Rest(const GainQuestion& question, const ChainJob& job, std::size_t channel, std::size_t first,
       std::size_t count)
      : gain(count), rest(count) {
    const GainTarget& result = question.result;
    result.engine.read(channel, first, gain);
    const double* const mix = job.mix.row(channel).data() + first;
    const float* const y = result.heard.row(channel).data() + first;
    for (std::size_t i = 0; i < count; ++i) {
      rest[i] =
          static_cast<float>(mix[i] - static_cast<double>(gain[i]) * static_cast<double>(y[i]));
    }
    question.engine.read(channel, first, gain);
  }
};

VERDEL_INLINE Change change_under(const float* tap, const double* factor, const float* rest,
                                  std::size_t count) {
  const auto d = [=](std::size_t i) __attribute__((always_inline)) {
    return factor[i] * static_cast<double>(tap[i]);
  };
  return {lane_sum(
              count, [=
  ](std::size_t i) __attribute__((always_inline)) { return static_cast<double>(rest[i]) * d(i); }),
          lane_sum(
              count, [=](std::size_t i) __attribute__((always_inline)) { return d(i) * d(i); })};
}

/// A gain for all frequencies changes the samples.
Changes changes_of_samples(const GainQuestion& question, const StemMap& taps, std::size_t first,
                           const ChainJob& job) {
  const FactorCurve curve(question.gain, false);
  Changes changes(taps.size());
  const std::size_t count = std::min(kStretch, job.mix.columns() - first);
  std::vector<double> factor(count);
  for (std::size_t c = 0; c < job.mix.rows(); ++c) {
    const Rest rest(question, job, c, first, count);
    curve.read(c, first, factor);
    for (std::size_t i = 0; i < count; ++i) {
      factor[i] = static_cast<double>(rest.gain[i]) * (factor[i] - 1.0);
    }
    for (std::size_t tap = 0; tap < taps.size(); ++tap) {
      changes[tap].add(run_kernel<change_under>(taps[tap].audio.row(c).data() + first,
                                                factor.data(), rest.rest.data(), count));
    }
  }
  return changes;
}

VERDEL_INLINE Change change_of_bins(const float* tap, const float* factors, const float* rest,
                                    std::size_t count) {
  const auto d = [=](std::size_t i) __attribute__((always_inline)) {
    return factors[i] * tap[i];
  };
  return {lane_sum(
              count, [=
  ](std::size_t i) __attribute__((always_inline)) { return static_cast<double>(rest[i] * d(i)); }),
          lane_sum(
              count, [=](std::size_t i) __attribute__((always_inline)) {
                return static_cast<double>(d(i) * d(i));
              })};
}

/// A gain in bands changes the bins of its frames. Every other frame is enough: under the squared
/// root of a Hann window they add up to the whole song.
class BandVotes {
 public:
  BandVotes(const GainQuestion& question, const StemMap& taps, const ChainJob& job)
      : question_(question),
        gain_(question.gain),
        taps_(taps),
        job_(job),
        plan_(true, job.sr),
        transform_(plan_.frame) {
    if (question.before != nullptr) before_.emplace(*question.before, true);
  }

  std::size_t tasks() const {
    return (gain_.factors.front().rows() + 2 * kFramesPerTask - 1) / (2 * kFramesPerTask);
  }

  Changes task(std::size_t index, ChannelSet channels) const {
    const std::size_t first = 2 * index * kFramesPerTask;
    const std::size_t all = gain_.factors.front().rows();
    const std::size_t count = std::min(kFramesPerTask, (all - first + 1) / 2);
    const std::size_t samples = (count - 1) * 2 * plan_.hop() + plan_.frame;
    const std::ptrdiff_t begin = plan_.begin_of(first);
    PairStretch rest(samples), weights(samples);
    fill_rest(channels, begin, rest, weights);
    Changes changes(taps_.size());
    Spectrum time = transform_.room(), own = transform_.room();
    auto rests = Spectrum::uninitialised(count, plan_.frame);
    auto factors = Array2D<float>::uninitialised(count, 2 * plan_.frame);
    for (std::size_t i = 0; i < count; ++i) {
      transform_.forward(rest, 2 * i * plan_.hop(), time, own);
      std::copy_n(own.data(), plan_.frame, rests.row(i).data());
      read_factors(channels.first, first + 2 * i, factors.row(i));
    }
    for (std::size_t tap = 0; tap < taps_.size(); ++tap) {
      PairStretch stretch(samples);
      fill_tap(taps_[tap].audio.view(), channels, begin, weights, stretch);
      for (std::size_t i = 0; i < count; ++i) {
        transform_.forward(stretch, 2 * i * plan_.hop(), time, own);
        changes[tap].add(run_kernel<change_of_bins>(
            reinterpret_cast<const float*>(own.data()), factors.row(i).data(),
            reinterpret_cast<const float*>(rests.row(i).data()), 2 * plan_.frame));
      }
    }
    return changes;
  }

 private:
  using Spectrum = PairTransform::Spectrum;

  /// `weights`: what a tap's samples are multiplied with ahead of the gain.
  void fill_rest(ChannelSet channels, std::ptrdiff_t begin, PairStretch& rest,
                 PairStretch& weights) const {
    const auto fill = [&](std::size_t channel, std::size_t first, std::size_t length,
                          std::size_t at) {
      const Rest part(question_, job_, channel, first, length);
      const std::size_t row = channel - channels.first;
      std::vector<double> factors(length, 1.0);
      if (before_) before_->read(channel, first, factors);
      for (std::size_t i = 0; i < length; ++i) {
        rest.row(row)[at + i] = part.rest[i];
        weights.row(row)[at + i] = part.gain[i] * static_cast<float>(factors[i]);
      }
    };
    for_each_channel_in(channels, begin, rest.samples(), job_.mix.columns(), fill);
  }

  void fill_tap(HeardView tap, ChannelSet channels, std::ptrdiff_t begin,
                const PairStretch& weights, PairStretch& stretch) const {
    const auto fill = [&](std::size_t channel, std::size_t first, std::size_t length,
                          std::size_t at) {
      const std::size_t row = channel - channels.first;
      const float* __restrict weight = weights.row(row) + at;
      const float* __restrict from = tap.row(channel).data() + first;
      float* __restrict to = stretch.row(row) + at;
      for (std::size_t i = 0; i < length; ++i) to[i] = weight[i] * from[i];
    };
    for_each_channel_in(channels, begin, stretch.samples(), tap.columns(), fill);
  }

  /// What a frame's factors change, for real and imaginary parts of the whole spectrum.
  void read_factors(std::size_t channel, std::size_t frame, std::span<float> into) const {
    const auto by_band = gain_.of_channel(channel).row(frame);
    for (std::size_t k = 0; k < plan_.bins(); ++k) {
      const double toward = plan_.toward[k];
      const double factor =
          (1.0 - toward) * by_band[plan_.lower[k]] + toward * by_band[plan_.upper(k)];
      for (const std::size_t place : {k, (plan_.frame - k) % plan_.frame}) {
        into[2 * place] = into[2 * place + 1] = static_cast<float>(factor - 1.0);
      }
    }
  }

  const GainQuestion& question_;
  const FineGain& gain_;
  const StemMap& taps_;
  const ChainJob& job_;
  GainPlan plan_;
  PairTransform transform_;
  std::optional<FactorCurve> before_;
};

Changes all_changes(const GainQuestion& question, const StemMap& taps, const ChainJob& job) {
  const FineGain& gain = question.gain;
  std::vector<Changes> parts;
  if (gain.in_bands) {
    const BandVotes votes(question, taps, job);
    const std::size_t sets = gain.factors.size(), channels = job.mix.rows() / sets;
    parts.resize(votes.tasks() * sets);
    run_indexed(job.pool, parts.size(), [&](std::size_t i) {
      job.stop.check();
      parts[i] = votes.task(i / sets, {i % sets * channels, channels});
    });
  } else {
    parts.resize((job.mix.columns() + kStretch - 1) / kStretch);
    run_indexed(job.pool, parts.size(), [&](std::size_t i) {
      job.stop.check();
      parts[i] = changes_of_samples(question, taps, i * kStretch, job);
    });
  }
  Changes changes(taps.size());
  for (const Changes& part : parts) {
    for (std::size_t tap = 0; tap < taps.size(); ++tap) changes[tap].add(part[tap]);
  }
  return changes;
}

}  // namespace

double share_against(const GainQuestion& question, const StemMap& taps, const ChainJob& job) {
  double total = 0.0, against = 0.0;
  for (const Change& change : all_changes(question, taps, job)) {
    total += change.energy;
    const bool votes = change.energy > 0.0;
    if (votes && 1.0 + 2.0 * change.with_rest / change.energy < kVoteAgainst) {
      against += change.energy;
    }
  }
  return against / std::max(total, 1e-30);
}

}  // namespace verdel::internal
