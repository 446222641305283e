#include "chain/effect_fit.hpp"

#include <algorithm>
#include <complex>
#include <memory>
#include <vector>

#include "chain/effect_blocks.hpp"
#include "chain/effect_preconditioner.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kPassageSeconds = 2;
constexpr std::size_t kThirds = 3;  // every third passage judges
constexpr int kJudgedSteps = 3, kMoreSteps = 3, kBetterSteps = 3;
constexpr std::size_t kTasksPerChannel = 4;

using Spans = std::vector<SampleSpan>;

/// The passages that a filter to be judged is found on, and those that judge it.
struct Split {
  Spans seen, unseen;

  /// `passage` in samples.
  Split(std::span<const SampleSpan> judged, std::size_t passage) {
    for (const SampleSpan& span : judged) {
      for (std::size_t first = span.first; first < span.stop;) {
        const std::size_t number = first / passage;
        const std::size_t stop = std::min((number + 1) * passage, span.stop);
        (number % kThirds == 1 ? unseen : seen).push_back({first, stop});
        first = stop;
      }
    }
  }
};

/// One channel on its way: conjugate gradients whose preconditioner need not be quite linear.
struct Descent {
  EffectResponse u, rest, preconditioned, direction;
  double power = 0.0;

  void begin(EffectResponse start, EffectResponse left,
             const EffectPreconditioner& preconditioner) {
    u = std::move(start);
    rest = std::move(left);
    direction = preconditioned = preconditioner.solve(rest);
    power = dot(rest, preconditioned);
  }
  void advance(const EffectResponse& image, const EffectPreconditioner& preconditioner) {
    const double curvature = dot(direction, image);
    if (!(power > 0.0 && curvature > 0.0)) return;
    const double along = power / curvature;
    for (std::size_t i = 0; i < u.size(); ++i) {
      u[i] += along * direction[i];
      rest[i] -= along * image[i];
    }
    const double old_part = dot(rest, preconditioned);
    preconditioned = preconditioner.solve(rest);
    const double next = dot(rest, preconditioned);
    const double turn = (next - old_part) / power;
    for (std::size_t i = 0; i < u.size(); ++i) {
      direction[i] = preconditioned[i] + turn * direction[i];
    }
    power = next;
  }
};

/// Values by channel.
using Responses = std::vector<EffectResponse>;

class EffectSearch {
 public:
  EffectSearch(const EffectSignals& signals, const ChainJob& job)
      : job_(job),
        signals_(signals),
        plan_(signals.source.columns(), job.sr),
        course_(expected_course(plan_, job.sr)),
        descents_(signals.source.rows()),
        rooms_([this] { return std::make_unique<Room>(plan_); }) {
    for (std::size_t c = 0; c < descents_.size(); ++c) channels_.emplace_back(plan_, signals, c);
    precondition();
  }

  std::optional<EffectFit> find(double least_validated) {
    const Split split(signals_.judged, kPassageSeconds * static_cast<std::size_t>(job_.sr));
    begin(Responses(channels_.size(), EffectResponse(plan_.length, 0.0)), targets(split.seen));
    descend(kJudgedSteps, split.seen);
    const double validated = validate(split);
    if (validated < least_validated) return std::nullopt;
    begin_again();
    descend(kMoreSteps, signals_.judged);
    return EffectFit{.fir = fir(), .cross_validation = validated};
  }

  EffectFit better(const ChainFir& before) {
    Responses start;
    for (std::size_t c = 0; c < channels_.size(); ++c) {
      start.push_back(before.responses[c * channels_.size() + c]);
      start.back()[plan_.before] -= 1.0;
      for (std::size_t i = 0; i < plan_.length; ++i) start.back()[i] /= course_[i];
    }
    begin(std::move(start), targets(signals_.judged));
    descend(kBetterSteps, signals_.judged);
    return {.fir = fir()};
  }

 private:
  using Room = EffectChannel::Room;
  using Seen = std::span<const SampleSpan>;

  template <class Work>
  void for_each_channel(Work work) {
    run_indexed(job_.pool, channels_.size(), work);
  }

  /// Calls work(channel, task, block, room) for all blocks, those of a task one after the other.
  template <class Work>
  void for_each_block(Work work) {
    run_indexed(job_.pool, channels_.size() * kTasksPerChannel, [&](std::size_t i) {
      const std::size_t task = i % kTasksPerChannel;
      const auto room = rooms_.lease();
      for (std::size_t block = plan_.blocks * task / kTasksPerChannel;
           block < plan_.blocks * (task + 1) / kTasksPerChannel; ++block) {
        job_.stop.check();
        work(i / kTasksPerChannel, task, block, *room);
      }
    });
  }

  /// The sum over a channel's blocks of what add(channel, block, sums, room) adds to a spectrum,
  /// [channels][bins].
  template <class Add>
  EffectSpectrum gather(Add add_block) {
    auto parts = EffectSpectrum::zeros(channels_.size() * kTasksPerChannel, plan_.row_bins());
    for_each_block([&](std::size_t c, std::size_t task, std::size_t block, Room& room) {
      const auto sums = parts.row(c * kTasksPerChannel + task).first(plan_.transform.bins());
      add_block(c, block, sums, room);
    });
    auto sums = EffectSpectrum::uninitialised(channels_.size(), plan_.row_bins());
    for_each_channel([&](std::size_t c) {
      std::ranges::copy(parts.row(c * kTasksPerChannel), sums.row(c).begin());
      for (std::size_t t = 1; t < kTasksPerChannel; ++t) {
        const auto part = parts.row(c * kTasksPerChannel + t);
        for (std::size_t k = 0; k < part.size(); ++k) sums.row(c)[k] += part[k];
      }
    });
    return sums;
  }

  /// Such sums as filters, under the expected course.
  Responses filters_of(EffectSpectrum sums) {
    Responses filters(channels_.size());
    for_each_channel([&](std::size_t c) {
      auto lags = Array2D<float>::uninitialised(1, plan_.frame);
      plan_.transform.inverse(sums.row(c).data(), lags.data());
      filters[c].resize(plan_.length);
      for (std::size_t i = 0; i < plan_.length; ++i) {
        filters[c][i] =
            course_[i] * static_cast<double>(lags.data()[i]) / static_cast<double>(plan_.frame);
      }
    });
    return filters;
  }

  /// The spectra of filters that are given under the course, at the scale that a block is played
  /// with.
  template <class Filter>
  EffectSpectrum spectra_of(Filter filter) {
    auto spectra = EffectSpectrum::uninitialised(channels_.size(), plan_.row_bins());
    for_each_channel([&](std::size_t c) {
      const EffectResponse& values = filter(c);
      auto time = Array2D<float>::zeros(1, plan_.frame);
      for (std::size_t i = 0; i < plan_.length; ++i) {
        time.data()[i] =
            static_cast<float>(course_[i] * values[i] / static_cast<double>(plan_.frame));
      }
      plan_.transform.forward(time.data(), spectra.row(c).data());
    });
    return spectra;
  }

  void precondition() {
    auto power = gather([&](std::size_t c, std::size_t block, auto sums, Room& room) {
      channels_[c].prepare(block, sums, room);
    });
    for (std::size_t c = 0; c < channels_.size(); ++c) {
      preconditioners_.emplace_back(plan_, power.row(c), course_);
    }
  }

  Responses targets(Seen seen) {
    return filters_of(gather([&](std::size_t c, std::size_t block, auto sums, Room& room) {
      channels_[c].add_target(block, seen, sums, room);
    }));
  }

  /// The matrix times a filter, but for the ridge.
  template <class Filter>
  Responses products(Seen seen, Filter filter) {
    const auto spectra = spectra_of(filter);
    return filters_of(gather([&](std::size_t c, std::size_t block, auto sums, Room& room) {
      channels_[c].add_product(block, seen, spectra.row(c), sums, room);
    }));
  }

  /// From what was found on some of the passages on, with all of them.
  void begin_again() {
    Responses start, left = targets(signals_.judged);
    for (const Descent& descent : descents_) start.push_back(descent.u);
    const auto explained =
        products(signals_.judged, [&](std::size_t c) -> const EffectResponse& { return start[c]; });
    for (std::size_t c = 0; c < left.size(); ++c) {
      for (std::size_t i = 0; i < plan_.length; ++i) left[c][i] -= explained[c][i];
    }
    begin(std::move(start), std::move(left));
  }

  /// `left` is what `start` leaves of the right-hand side, but for the ridge.
  void begin(Responses start, Responses left) {
    for_each_channel([&](std::size_t c) {
      const double ridge = preconditioners_[c].ridge();
      for (std::size_t i = 0; i < plan_.length; ++i) left[c][i] -= ridge * start[c][i];
      descents_[c].begin(std::move(start[c]), std::move(left[c]), preconditioners_[c]);
    });
  }

  void descend(int steps, Seen seen) {
    for (int step = 0; step < steps; ++step) {
      auto images = products(
          seen, [&](std::size_t c) -> const EffectResponse& { return descents_[c].direction; });
      for_each_channel([&](std::size_t c) {
        const double ridge = preconditioners_[c].ridge();
        for (std::size_t i = 0; i < plan_.length; ++i) {
          images[c][i] += ridge * descents_[c].direction[i];
        }
        descents_[c].advance(images[c], preconditioners_[c]);
      });
    }
  }

  EffectResponse filter_of(std::size_t channel) const {
    EffectResponse filter = descents_[channel].u;
    for (std::size_t i = 0; i < filter.size(); ++i) filter[i] *= course_[i];
    return filter;
  }

  ChainFir fir() const {
    const std::size_t channels = channels_.size();
    ChainFir fir{
        .channels = channels, .length = plan_.length, .centre = plan_.before, .responses = {}};
    for (std::size_t i = 0; i < channels * channels; ++i) {
      const bool own = i % (channels + 1) == 0;
      fir.responses.push_back(own ? filter_of(i / channels) : EffectResponse(plan_.length));
      if (own) fir.responses.back()[plan_.before] += 1.0;
    }
    return fir;
  }

  /// dB by which the filter beats a plain factor, channel by channel, on the passages not seen.
  double validate(const Split& split) {
    const auto spectra =
        spectra_of([&](std::size_t c) -> const EffectResponse& { return descents_[c].u; });
    std::vector<EffectSums> seen(channels_.size() * kTasksPerChannel), unseen = seen;
    for_each_block([&](std::size_t c, std::size_t task, std::size_t block, Room& room) {
      const std::size_t i = c * kTasksPerChannel + task;
      channels_[c].play(block, spectra.row(c), room);
      seen[i].add(channels_[c].judge(block, split.seen, room));
      unseen[i].add(channels_[c].judge(block, split.unseen, room));
    });
    double plain = 0.0, left = 0.0;
    for (std::size_t c = 0; c < channels_.size(); ++c) {
      const EffectSums on = total(seen, c), off = total(unseen, c);
      const double factor = on.cross / std::max(on.power, 1e-30);
      plain += off.rest - 2.0 * factor * off.cross + factor * factor * off.power;
      left += off.left;
    }
    return energy_db(plain / std::max(left, 1e-30));
  }

  static EffectSums total(const std::vector<EffectSums>& parts, std::size_t channel) {
    EffectSums sums;
    for (std::size_t t = 0; t < kTasksPerChannel; ++t) {
      sums.add(parts[channel * kTasksPerChannel + t]);
    }
    return sums;
  }

  const ChainJob& job_;
  const EffectSignals& signals_;
  EffectPlan plan_;
  EffectResponse course_;
  std::vector<EffectChannel> channels_;
  std::vector<EffectPreconditioner> preconditioners_;
  std::vector<Descent> descents_;  // by channel
  ScratchPool<Room> rooms_;
};

}  // namespace

std::optional<EffectFit> fit_effect(const EffectSignals& signals, double least_validated,
                                    const ChainJob& job) {
  EffectSearch search(signals, job);
  if (signals.before != nullptr) return search.better(*signals.before);
  return search.find(least_validated);
}

}  // namespace verdel::internal
