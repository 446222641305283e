#include "chain/effect_fit.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <complex>
#include <numeric>
#include <vector>

#include "chain/spectral_products.hpp"
#include "signal/sums.hpp"
#include "signal/transforms.hpp"

namespace verdel::internal {
namespace {

constexpr double kEffectSeconds = 1.2, kBeforeSeconds = 0.005;
constexpr double kPriorSeconds = 0.3;  // in which what is expected of an effect falls by 8.7 dB
constexpr double kRidge = 1e-3;        // of the source's energy
constexpr double kMostSeconds = 60.0;
constexpr double kPassageSeconds = 2.0;
constexpr std::size_t kQuarters = 4, kJudged = 2;
constexpr int kSteps = 5, kJudgedSteps = 3, kBetterSteps = 3, kInnerSteps = 16;
constexpr std::size_t kTasksPerChannel = 4;

using Complex = std::complex<float>;
using Spectrum = Array2D<Complex>;
using Vector = std::vector<double>;

/// The whole of the passages, and what is left of them without each judged quarter.
constexpr std::size_t kSystems = 1 + kJudged;
using Systems = std::array<Vector, kSystems>;

double dot(const Vector& a, const Vector& b) {
  return lane_sum(a.size(), [&](std::size_t i) { return a[i] * b[i]; });
}

/// How the song is cut: blocks of `block` samples, each transformed with the filter's length before
/// it.
struct Plan {
  std::size_t length, before, frame, block;
  std::vector<std::size_t> starts;
  RealTransform<float> transform;
  double passage;  // samples

  Plan(std::size_t samples, int sr)
      : length(static_cast<std::size_t>(kEffectSeconds * sr)),
        before(static_cast<std::size_t>(kBeforeSeconds * sr)),
        frame(std::bit_ceil(3 * length)),
        block(frame - length),
        transform(frame),
        passage(kPassageSeconds * sr) {
    const std::size_t count = (samples + block - 1) / block;
    const auto most = static_cast<std::size_t>(kMostSeconds * sr) / block + 1;
    const std::size_t taken = std::min(count, most);
    for (std::size_t i = 0; i < taken; ++i) starts.push_back(i * count / taken * block);
  }
  std::size_t quarter_of(std::size_t sample) const {
    return static_cast<std::size_t>(static_cast<double>(sample) / passage) % kQuarters;
  }
};

/// Silences the passages that a system does not see: `part` is what begins at `first`.
void hide(const Plan& plan, std::size_t system, std::size_t first, std::span<float> part) {
  if (system == 0) return;
  for (std::size_t i = 0; i < part.size(); ++i) {
    if (plan.quarter_of(first + i) == system - 1) part[i] = 0.0F;
  }
}

/// The equations of one channel: the source's spectra are kept, as every product needs them.
class ChannelEquations {
 public:
  ChannelEquations(const Plan& plan, const EffectSignals& signals, std::size_t channel,
                   const ChainJob& job)
      : plan_(plan),
        job_(job),
        source_(signals.source.row(channel)),
        rest_(signals.rest.row(channel)),
        gain_(signals.gain),
        channel_(channel),
        spectra_(Spectrum::uninitialised(plan.starts.size(), (plan.transform.bins() + 7) / 8 * 8)) {
  }

  std::size_t blocks() const { return plan_.starts.size(); }

  /// Transforms block `index` of the source, and adds the spectrum of gain * source.
  void prepare(std::size_t index, Spectrum& power) {
    auto time = Array2D<float>::uninitialised(1, plan_.frame);
    auto turned = Spectrum::uninitialised(1, plan_.transform.bins());
    read_source(index, time.flat());
    plan_.transform.forward(time.data(), spectra_.row(index).data());
    const auto gains = gains_of(index);
    const std::size_t first = plan_.starts[index];
    std::ranges::fill(time.flat(), 0.0F);
    for (std::size_t i = 0; i < gains.size(); ++i) time.data()[i] = gains[i] * source_[first + i];
    plan_.transform.forward(time.data(), turned.data());
    add_correlation(turned.flat(), turned.flat(), power.flat());
  }

  /// Adds a block's part of the right-hand side of each system.
  void add_target(std::size_t index, std::size_t systems, Spectrum& sums) const {
    auto time = Array2D<float>::uninitialised(1, plan_.frame);
    const auto gains = gains_of(index);
    const std::size_t first = plan_.starts[index];
    for (std::size_t system = 0; system < systems; ++system) {
      std::ranges::fill(time.flat(), 0.0F);
      const auto part = time.flat().subspan(plan_.length, gains.size());
      for (std::size_t i = 0; i < part.size(); ++i) part[i] = gains[i] * rest_[first + i];
      hide(plan_, system, first, part);
      correlate_block(index, time, sums.row(system));
    }
  }

  /// Adds a block's part of each system's matrix times its filter, given as spectra.
  void add_product(std::size_t index, std::size_t systems, const Spectrum& filters,
                   Spectrum& sums) const {
    auto time = Array2D<float>::uninitialised(1, plan_.frame);
    const auto gains = gains_of(index);
    for (std::size_t system = 0; system < systems; ++system) {
      play_block(index, filters.row(system), time);
      const auto part = time.flat().subspan(plan_.length, gains.size());
      for (std::size_t i = 0; i < part.size(); ++i) part[i] *= gains[i] * gains[i];
      hide(plan_, system, plan_.starts[index], part);
      std::fill_n(time.data(), plan_.length, 0.0F);
      std::ranges::fill(time.flat().subspan(plan_.length + part.size()), 0.0F);
      correlate_block(index, time, sums.row(system));
    }
  }

  /// For each judged quarter: products on the passages seen (rest with source, source with source),
  /// and on the others beside those the rest itself and what the filter leaves of it.
  struct Judgement {
    double seen_cross = 0, seen_power = 0, cross = 0, power = 0, rest = 0, left = 0;
  };
  void judge(std::size_t index, const Spectrum& filters,
             std::array<Judgement, kJudged>& judgements) const {
    auto time = Array2D<float>::uninitialised(1, plan_.frame);
    const auto gains = gains_of(index);
    const std::size_t first = plan_.starts[index];
    for (std::size_t quarter = 0; quarter < kJudged; ++quarter) {
      play_block(index, filters.row(1 + quarter), time);
      Judgement& judgement = judgements[quarter];
      for (std::size_t i = 0; i < gains.size(); ++i) {
        const auto rest = static_cast<double>(rest_[first + i]),
                   gain = static_cast<double>(gains[i]);
        const double source = gain * static_cast<double>(source_[first + i]);
        if (plan_.quarter_of(first + i) != quarter) {
          judgement.seen_cross += rest * source;
          judgement.seen_power += source * source;
          continue;
        }
        const double left = rest - gain * static_cast<double>(time.data()[plan_.length + i]);
        judgement.cross += rest * source;
        judgement.power += source * source;
        judgement.rest += rest * rest;
        judgement.left += left * left;
      }
    }
  }

 private:
  std::vector<float> gains_of(std::size_t index) const {
    const std::size_t first = plan_.starts[index];
    std::vector<float> gains(std::min(plan_.block, rest_.size() - first));
    gain_.read(channel_, first, gains);
    return gains;
  }

  // Sample j of the frame is sample first + before - length + j of the source, so that the filter's
  // answer at `first` stands at `length`, all that it comes from before it.
  void read_source(std::size_t index, std::span<float> time) const {
    const auto begin = static_cast<std::ptrdiff_t>(plan_.starts[index] + plan_.before) -
                       static_cast<std::ptrdiff_t>(plan_.length);
    for (std::size_t j = 0; j < time.size(); ++j) {
      const std::ptrdiff_t at = begin + static_cast<std::ptrdiff_t>(j);
      time[j] = at >= 0 && at < static_cast<std::ptrdiff_t>(source_.size())
                    ? source_[static_cast<std::size_t>(at)]
                    : 0.0F;
    }
  }

  void play_block(std::size_t index, std::span<const Complex> filter, Array2D<float>& time) const {
    job_.stop.check();
    auto spectrum = Spectrum::uninitialised(1, plan_.transform.bins());
    multiply(spectra_.row(index), filter, spectrum.flat());
    plan_.transform.inverse(spectrum.data(), time.data());
  }

  void correlate_block(std::size_t index, const Array2D<float>& time,
                       std::span<Complex> sums) const {
    job_.stop.check();
    auto spectrum = Spectrum::uninitialised(1, plan_.transform.bins());
    plan_.transform.forward(time.data(), spectrum.data());
    add_correlation(spectra_.row(index), spectrum.flat(), sums.first(spectrum.size()));
  }

  const Plan& plan_;
  const ChainJob& job_;
  std::span<const float> source_, rest_;
  const GainCurve& gain_;
  std::size_t channel_;
  Spectrum spectra_;
};

/// The source's own autocorrelation under the gain, which stands in for the matrix: solves
/// (P T P + ridge) z = r, P what is expected of an effect's course, T Toeplitz.
class Preconditioner {
 public:
  /// `power`: the spectrum of the autocorrelation, at the plan's frame.
  Preconditioner(const Plan& plan, Spectrum& power, const Vector& prior)
      : prior_(prior),
        transform_(std::bit_ceil(2 * plan.length)),
        toeplitz_(Spectrum::uninitialised(1, transform_.bins())) {
    auto lags = Array2D<float>::uninitialised(1, plan.frame);
    plan.transform.inverse(power.data(), lags.data());
    auto circle = Array2D<float>::zeros(1, transform_.length());
    for (std::size_t j = 0; j < plan.length; ++j) {
      const float value = lags.data()[j] / static_cast<float>(plan.frame);
      circle.data()[j] = value;
      if (j > 0) circle.data()[transform_.length() - j] = value;
    }
    energy_ = static_cast<double>(circle.data()[0]);
    transform_.forward(circle.data(), toeplitz_.data());
  }

  double energy() const { return energy_; }
  double ridge() const { return kRidge * energy_; }

  Vector solve(const Vector& right) const {
    Vector z(right.size(), 0.0), rest = right, direction = right;
    double power = dot(rest, rest);
    for (int step = 0; step < kInnerSteps && power > 0.0; ++step) {
      const Vector image = product(direction);
      const double along = power / dot(direction, image);
      for (std::size_t i = 0; i < z.size(); ++i) {
        z[i] += along * direction[i];
        rest[i] -= along * image[i];
      }
      const double next = dot(rest, rest);
      for (std::size_t i = 0; i < z.size(); ++i) {
        direction[i] = rest[i] + next / power * direction[i];
      }
      power = next;
    }
    return z;
  }

 private:
  Vector product(const Vector& v) const {
    auto time = Array2D<float>::zeros(1, transform_.length());
    auto spectrum = Spectrum::uninitialised(1, transform_.bins());
    for (std::size_t i = 0; i < v.size(); ++i) {
      time.data()[i] = static_cast<float>(prior_[i] * v[i]);
    }
    transform_.forward(time.data(), spectrum.data());
    for (std::size_t k = 0; k < transform_.bins(); ++k) {
      spectrum.data()[k] *= toeplitz_.data()[k].real();
    }
    transform_.inverse(spectrum.data(), time.data());
    Vector image(v.size());
    const double scale = 1.0 / static_cast<double>(transform_.length());
    for (std::size_t i = 0; i < v.size(); ++i) {
      image[i] = prior_[i] * scale * static_cast<double>(time.data()[i]) + ridge() * v[i];
    }
    return image;
  }

  const Vector& prior_;
  RealTransform<float> transform_;
  Spectrum toeplitz_;
  double energy_ = 0.0;
};

/// One system on its way: conjugate gradients whose preconditioner need not be quite linear.
struct Descent {
  Vector u, rest, preconditioned, direction;
  double power = 0.0;

  void begin(Vector start, Vector left, const Preconditioner& preconditioner) {
    u = std::move(start);
    rest = std::move(left);
    direction = preconditioned = preconditioner.solve(rest);
    power = dot(rest, preconditioned);
  }
  void advance(const Vector& image, const Preconditioner& preconditioner) {
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

class EffectSearch {
 public:
  EffectSearch(const EffectSignals& signals, const ChainJob& job)
      : job_(job),
        before_(signals.before),
        systems_(before_ == nullptr ? kSystems : 1),
        plan_(signals.source.columns(), job.sr),
        prior_(plan_.length) {
    for (std::size_t i = 0; i < plan_.length; ++i) {
      const auto offset = static_cast<double>(i) - static_cast<double>(plan_.before);
      prior_[i] = std::exp(-std::abs(offset) / job.sr / kPriorSeconds);
    }
    for (std::size_t c = 0; c < signals.source.rows(); ++c) {
      channels_.emplace_back(plan_, signals, c, job);
    }
  }

  EffectFit run() {
    prepare();
    begin();
    const bool judged = systems_ > 1;
    for (int step = 0; step < (before_ == nullptr ? kSteps : kBetterSteps); ++step) {
      if (step == kJudgedSteps) systems_ = 1;
      const auto images = products();
      for_each_system([&](std::size_t c, std::size_t s) {
        descents_[c][s].advance(images[c][s], preconditioners_[c]);
      });
    }
    return {.fir = fir(), .cross_validation = judged ? validate() : 0.0};
  }

 private:
  static void scale(Vector& values, const Vector& factors) {
    for (std::size_t i = 0; i < values.size(); ++i) values[i] *= factors[i];
  }

  template <class Work>
  void for_each_system(Work work) {
    run_indexed(job_.pool, channels_.size() * systems_,
                [&](std::size_t i) { work(i / systems_, i % systems_); });
  }

  /// Calls work(channel, task, block) for all blocks, those of a task one after the other.
  template <class Work>
  void for_each_block(Work work) {
    run_indexed(job_.pool, channels_.size() * kTasksPerChannel, [&](std::size_t i) {
      const std::size_t c = i / kTasksPerChannel, task = i % kTasksPerChannel;
      const std::size_t blocks = channels_[c].blocks();
      for (std::size_t b = blocks * task / kTasksPerChannel;
           b < blocks * (task + 1) / kTasksPerChannel; ++b) {
        work(c, task, b);
      }
    });
  }

  void begin() {
    auto targets = gather([&](const ChannelEquations& channel, std::size_t index, Spectrum& sums) {
      channel.add_target(index, systems_, sums);
    });
    for_each_system([&](std::size_t c, std::size_t s) {
      Vector& target = targets[c][s];
      scale(target, prior_);
      Vector start(plan_.length, 0.0);
      if (before_ != nullptr) {
        start = before_->responses[c * channels_.size() + c];
        start[plan_.before] -= 1.0;
        for (std::size_t i = 0; i < start.size(); ++i) {
          start[i] /= prior_[i];
          target[i] -= preconditioners_[c].ridge() * start[i];
        }
      }
      descents_[c][s].begin(std::move(start), std::move(target), preconditioners_[c]);
    });
  }

  std::size_t row_bins() const { return (plan_.transform.bins() + 7) / 8 * 8; }

  void prepare() {
    std::vector<std::vector<Spectrum>> parts(channels_.size());
    for (auto& channel : parts) {
      for (std::size_t t = 0; t < kTasksPerChannel; ++t) {
        channel.push_back(Spectrum::zeros(1, plan_.transform.bins()));
      }
    }
    for_each_block([&](std::size_t c, std::size_t task, std::size_t block) {
      channels_[c].prepare(block, parts[c][task]);
    });
    for (auto& channel : parts) {
      for (std::size_t t = 1; t < kTasksPerChannel; ++t) add(channel[t], channel[0]);
      preconditioners_.emplace_back(plan_, channel[0], prior_);
    }
    descents_.resize(channels_.size());
  }

  static void add(const Spectrum& part, Spectrum& sum) {
    for (std::size_t k = 0; k < sum.size(); ++k) sum.data()[k] += part.data()[k];
  }

  /// Sums over the blocks, as filters: [channel][system].
  template <class Add>
  std::vector<Systems> gather(Add add_block) {
    std::vector<std::vector<Spectrum>> parts(channels_.size());
    for (auto& channel : parts) {
      for (std::size_t t = 0; t < kTasksPerChannel; ++t) {
        channel.push_back(Spectrum::zeros(kSystems, row_bins()));
      }
    }
    for_each_block([&](std::size_t c, std::size_t task, std::size_t block) {
      add_block(channels_[c], block, parts[c][task]);
    });
    std::vector<Systems> filters(channels_.size());
    for_each_system([&](std::size_t c, std::size_t s) {
      auto sum = Spectrum::copy_of(RowsView<const Complex>(parts[c][0].row(s).data(), 1,
                                                           plan_.transform.bins(), row_bins()));
      for (std::size_t t = 1; t < kTasksPerChannel; ++t) {
        for (std::size_t k = 0; k < sum.size(); ++k) sum.data()[k] += parts[c][t].row(s)[k];
      }
      auto lags = Array2D<float>::uninitialised(1, plan_.frame);
      plan_.transform.inverse(sum.data(), lags.data());
      filters[c][s].resize(plan_.length);
      for (std::size_t i = 0; i < plan_.length; ++i) {
        filters[c][s][i] = static_cast<double>(lags.data()[i]) / static_cast<double>(plan_.frame);
      }
    });
    return filters;
  }

  /// The spectra of filters at the scale that a block is played with.
  std::vector<Spectrum> spectra_of(const std::vector<Systems>& filters) {
    std::vector<Spectrum> spectra;
    for (std::size_t c = 0; c < channels_.size(); ++c) {
      spectra.push_back(Spectrum::zeros(kSystems, row_bins()));
    }
    for_each_system([&](std::size_t c, std::size_t s) {
      auto time = Array2D<float>::zeros(1, plan_.frame);
      for (std::size_t i = 0; i < plan_.length; ++i) {
        time.data()[i] = static_cast<float>(filters[c][s][i] / static_cast<double>(plan_.frame));
      }
      plan_.transform.forward(time.data(), spectra[c].row(s).data());
    });
    return spectra;
  }

  /// The matrix of each system times its direction.
  std::vector<Systems> products() {
    std::vector<Systems> directions(channels_.size());
    for_each_system([&](std::size_t c, std::size_t s) {
      directions[c][s] = descents_[c][s].direction;
      scale(directions[c][s], prior_);
    });
    const auto spectra = spectra_of(directions);
    // By the channel's address: a block knows its channel alone.
    auto images = gather([&](const ChannelEquations& channel, std::size_t index, Spectrum& sums) {
      channel.add_product(index, systems_,
                          spectra[static_cast<std::size_t>(&channel - channels_.data())], sums);
    });
    for_each_system([&](std::size_t c, std::size_t s) {
      Vector& image = images[c][s];
      scale(image, prior_);
      const double ridge = preconditioners_[c].ridge();
      for (std::size_t i = 0; i < image.size(); ++i) {
        image[i] += ridge * descents_[c][s].direction[i];
      }
    });
    return images;
  }

  Vector filter_of(std::size_t channel, std::size_t system) const {
    Vector filter = descents_[channel][system].u;
    scale(filter, prior_);
    return filter;
  }

  ChainFir fir() const {
    const std::size_t channels = channels_.size();
    ChainFir fir{
        .channels = channels, .length = plan_.length, .centre = plan_.before, .responses = {}};
    for (std::size_t i = 0; i < channels * channels; ++i) {
      const bool own = i % (channels + 1) == 0;
      fir.responses.push_back(own ? filter_of(i / channels, 0) : Vector(plan_.length));
      if (own) fir.responses.back()[plan_.before] += 1.0;
    }
    return fir;
  }

  double validate() {
    systems_ = kSystems;
    std::vector<Systems> filters(channels_.size());
    for (std::size_t c = 0; c < channels_.size(); ++c) {
      for (std::size_t s = 0; s < kSystems; ++s) filters[c][s] = filter_of(c, s);
    }
    const auto spectra = spectra_of(filters);
    using Judgement = ChannelEquations::Judgement;
    std::vector<std::array<Judgement, kJudged>> parts(channels_.size() * kTasksPerChannel);
    for_each_block([&](std::size_t c, std::size_t task, std::size_t block) {
      channels_[c].judge(block, spectra[c], parts[c * kTasksPerChannel + task]);
    });
    double plain = 0.0, left = 0.0;
    for (std::size_t c = 0; c < channels_.size(); ++c) {
      for (std::size_t quarter = 0; quarter < kJudged; ++quarter) {
        Judgement all;
        for (std::size_t t = 0; t < kTasksPerChannel; ++t) {
          const Judgement& part = parts[c * kTasksPerChannel + t][quarter];
          all.seen_cross += part.seen_cross;
          all.seen_power += part.seen_power;
          all.cross += part.cross;
          all.power += part.power;
          all.rest += part.rest;
          all.left += part.left;
        }
        const double factor = all.seen_cross / std::max(all.seen_power, 1e-30);
        plain += all.rest - 2.0 * factor * all.cross + factor * factor * all.power;
        left += all.left;
      }
    }
    return energy_db(plain / std::max(left, 1e-30));
  }

  const ChainJob& job_;
  const ChainFir* before_;
  std::size_t systems_;  // in work
  Plan plan_;
  Vector prior_;
  std::vector<ChannelEquations> channels_;
  std::vector<Preconditioner> preconditioners_;
  std::vector<std::array<Descent, kSystems>> descents_;
};

}  // namespace

EffectFit fit_effect(const EffectSignals& signals, const ChainJob& job) {
  return EffectSearch(signals, job).run();
}

}  // namespace verdel::internal
