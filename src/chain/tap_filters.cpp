#include "chain/tap_filters.hpp"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "chain/chain_gain.hpp"
#include "chain/effect_fit.hpp"
#include "chain/tap_promise.hpp"
#include "signal/sums.hpp"

namespace verdel::internal {
namespace {

constexpr double kLeastFall = 1.0;       // dB that a filter must take off what is left,
constexpr double kLeastValidated = 1.0;  // and beat a plain factor by on unseen passages
constexpr double kLeastBetter = 0.5;     // dB, where it stands for one that was found before
// A first glance is not exact: what promises this much is tried.
constexpr double kWorthATry = 0.7;  // dB
constexpr double kNearlyBest = 0.75;
// A tap whose filter did not hold, or could not be bettered, is looked at again when the rest has
// fallen by this much.
constexpr double kMuchLess = 3.0;  // dB
constexpr int kMostRounds = 8;
constexpr double kEnough = -50.0;  // dB: less than this is nobody's to hear
constexpr int kEqualiserSteps = 3;

/// A filter of one tap, tried.
struct Trial {
  TapFilter filter;
  ChainFir fir;
  double left = 0.0;  ///< dB of the mix, under the gain that goes with it
};

/// The level of the decay, in steps of kDecayStepSeconds behind the direct sound, over the
/// channels.
std::vector<double> decay_of(const ChainFir& fir, int sr) {
  const auto step = static_cast<std::size_t>(kDecayStepSeconds * sr);
  std::vector<double> decay;
  for (std::size_t first = fir.centre; first + step <= fir.length; first += step) {
    double energy = 0.0;
    for (const auto& response : fir.responses) {
      energy += sum_of_squares(std::span(response).subspan(first, step));
    }
    decay.push_back(energy_db(energy / static_cast<double>(fir.channels)));
  }
  return decay;
}

/// The time in which a decay falls by 60 dB: a straight line through its energy still to come,
/// between 5 and 25 dB below the start (Schroeder 1965). The direct sound is left out.
double reverberation_seconds(const std::vector<double>& decay) {
  std::vector<double> to_come(decay.size());
  double energy = 0.0;
  for (std::size_t i = decay.size(); i-- > 1;) {
    energy += std::pow(10.0, decay[i] / 10.0);
    to_come[i] = energy_db(energy);
  }
  double n = 0.0, t = 0.0, l = 0.0, tt = 0.0, tl = 0.0;
  for (std::size_t i = 1; i < decay.size(); ++i) {
    const double below = to_come[1] - to_come[i];
    if (below < 5.0 || below > 25.0) continue;
    const double at = static_cast<double>(i) * kDecayStepSeconds;
    n += 1.0;
    t += at;
    l += to_come[i];
    tt += at * at;
    tl += at * to_come[i];
  }
  const double slope = (n * tl - t * l) / std::max(n * tt - t * t, 1e-30);  // dB per second
  return n < 2.0 || slope >= 0.0 ? 0.0 : -60.0 / slope;
}

class Search {
 public:
  Search(const ChainJob& job, HeardTaps& taps, const ChainFir* master)
      : job_(job),
        taps_(taps),
        master_(master),
        mix_energy_(energy_of(job.mix)),
        filters_(taps.size()),
        settled_(taps.size()),
        heard_(room()),
        own_(room()),
        rest_(room()) {
    listen();
  }

  bool run(TapSearch search, TapFiltersFinding& finding) {
    if (finding.filters.empty()) finding.left_before = left_;
    if (!finding.settled.empty()) settled_ = finding.settled;
    for (auto& filter : finding.filters) filters_[filter.tap] = std::move(filter);
    const int most = search == TapSearch::kOnce ? 1 : kMostRounds;
    int rounds = 0;
    for (bool more = true; rounds < most && left_ > kEnough && improve(more); ++rounds) {
      const auto filtered = std::ranges::count_if(filters_, [](const auto& f) { return !!f; });
      more =
          search == TapSearch::kAll || static_cast<std::size_t>(filtered) == finding.filters.size();
    }
    finding.left_after = left_;
    finding.settled = settled_;
    finding.filters.clear();
    for (auto& filter : filters_) {
      if (filter) finding.filters.push_back(std::move(*filter));
    }
    return rounds > 0;
  }

 private:
  Heard room() const { return Heard::uninitialised(job_.mix.rows(), job_.mix.columns()); }

  /// All that is heard with the taps' ways as they are, and what is left of the mix.
  void listen() {
    taps_.sum(job_, heard_, own_);
    if (master_ != nullptr) {
      play_to_measure(heard_.view(), *master_, job_, own_);
      std::swap(heard_, own_);
    }
    gain_.emplace(heard_.view(), kFittingGain, job_);
    left_ = measure(*gain_);
  }

  /// Takes the rest under a gain, and its level in dB of the mix.
  double measure(const GainCurve& gain) {
    take_rest(heard_.view(), gain, job_, rest_);
    return energy_db(energy_of(rest_.view()) / mix_energy_);
  }

  /// A better filter, or, if it may be one more, another; whether there was one to be had.
  bool improve(bool more) {
    std::optional<Trial> best;
    const auto promises = glance_at_taps(job_, taps_, *gain_, rest_.view());
    const auto order = worth_a_try(promises, more);
    for (const std::size_t tap : order) {
      // What a glance puts far behind is not the best.
      if (best && promise_of(promises[tap]) < kNearlyBest * promise_of(promises[order.front()])) {
        break;
      }
      bool good = false;
      for (auto& trial : trials(tap, promises[tap])) {
        const bool holds = trial.filter.cross_validation >= kLeastValidated;
        good |= holds && left_ - trial.left >= kLeastBetter;
        const double least = best ? left_ - best->left : filters_[tap] ? kLeastBetter : kLeastFall;
        if (holds && left_ - trial.left >= least) best = std::move(trial);
      }
      settled_[tap] = !good;
    }
    if (!best) return false;
    take(std::move(*best));
    return true;
  }

  void take(Trial trial) {
    const std::size_t tap = trial.filter.tap;
    trial.filter.fall = left_ - trial.left + (filters_[tap] ? filters_[tap]->fall : 0.0);
    if (left_ - trial.left >= kMuchLess) settled_.assign(settled_.size(), false);
    taps_.paths[tap].own = std::move(trial.fir);
    filters_[tap] = std::move(trial.filter);
    listen();
  }

  static double promise_of(const TapPromise& promise) {
    return std::max(promise.equaliser, promise.effect);
  }

  /// The best first. A filter that was found is fitted again, because the gain has changed with it.
  std::vector<std::size_t> worth_a_try(const std::vector<TapPromise>& promises, bool more) const {
    std::vector<std::size_t> order;
    for (std::size_t tap = 0; tap < promises.size(); ++tap) {
      const bool may = !settled_[tap] && (more || filters_[tap]);
      if (may && promise_of(promises[tap]) >= (filters_[tap] ? kLeastBetter : kWorthATry))
        order.push_back(tap);
    }
    std::ranges::stable_sort(order, std::greater<>(),
                             [&](std::size_t tap) { return promise_of(promises[tap]); });
    return order;
  }

  /// The equaliser first: what it explains needs no effect.
  std::vector<Trial> trials(std::size_t tap, const TapPromise& promise) {
    std::vector<Trial> trials;
    const bool effect_before = filters_[tap] && filters_[tap]->is_effect;
    if (!effect_before && (filters_[tap] || promise.equaliser >= kLeastFall)) {
      trials.push_back(try_equaliser(tap));
    }
    const double explained = trials.empty() ? 0.0 : left_ - trials.front().left;
    if (effect_before || promise.effect >= std::max(explained, 0.0) + kWorthATry) {
      trials.push_back(try_effect(tap));
    }
    return trials;
  }

  /// Leaves the tap without its own filter in own_, and all else in heard_.
  void set_apart(std::size_t tap) {
    taps_.hear(tap, master_, job_, own_);
    add(own_, -1.0F);
    if (!taps_.paths[tap].own) return;
    std::optional<ChainFir> filter;
    std::swap(taps_.paths[tap].own, filter);
    taps_.hear(tap, master_, job_, own_);
    std::swap(taps_.paths[tap].own, filter);
  }

  void add(const Heard& audio, float factor) {
    for (std::size_t i = 0; i < heard_.size(); ++i) {
      heard_.data()[i] += factor * audio.data()[i];
    }
  }

  /// What is left with own_ filtered and back among the rest; all that is heard is as before then.
  double left_with(std::size_t tap, const ChainFir& fir) {
    play_to_measure(own_.view(), fir, job_, rest_);
    add(rest_, 1.0F);
    const double left = measure(GainCurve(heard_.view(), kFittingGain, job_));
    play_to_measure(own_.view(), fir, job_, rest_);
    put_back(tap);
    return left;
  }

  /// All that is heard, and the rest, as they were before the tap was set apart.
  void put_back(std::size_t tap) {
    add(rest_, -1.0F);
    taps_.hear(tap, master_, job_, rest_);
    add(rest_, 1.0F);
    measure(*gain_);
  }

  Trial try_equaliser(std::size_t tap) {
    set_apart(tap);
    FilterFit fit(job_, own_.view(), {.others = heard_.view(), .gain = &*gain_});
    for (int step = 0; step < kEqualiserSteps; ++step) fit.step(own_.view());
    Trial trial{.filter = {.tap = tap,
                           .cross_validation = fit.cross_validate(own_.view()),
                           .hz = fit.basis().frequencies(),
                           .curves = {{"tap", fit.responses().front()}},
                           .deviation = fit.deviation(),
                           .decay_db = {}},
                .fir = fit.fir()};
    trial.left = left_with(tap, trial.fir);
    return trial;
  }

  Trial try_effect(std::size_t tap) {
    const bool again = filters_[tap] && filters_[tap]->is_effect;
    set_apart(tap);
    if (filters_[tap] && !again) {
      add(own_, 1.0F);
      measure(*gain_);
      add(own_, -1.0F);
    }
    const ChainFir* const before = again ? &*taps_.paths[tap].own : nullptr;
    EffectFit fit = fit_effect({own_.view(), rest_.view(), *gain_, before}, job_);
    Trial trial{.filter = {.tap = tap,
                           .is_effect = true,
                           .cross_validation =
                               again ? filters_[tap]->cross_validation : fit.cross_validation,
                           .hz = {},
                           .curves = {},
                           .deviation = {},
                           .decay_db = decay_of(fit.fir, job_.sr)},
                .fir = std::move(fit.fir)};
    trial.filter.seconds = reverberation_seconds(trial.filter.decay_db);
    trial.left = left_with(tap, trial.fir);
    return trial;
  }

  const ChainJob& job_;
  HeardTaps& taps_;
  const ChainFir* master_;
  double mix_energy_;
  std::vector<std::optional<TapFilter>> filters_;
  std::vector<bool> settled_;
  Heard heard_, own_, rest_;
  std::optional<GainCurve> gain_;
  double left_ = 0.0;
};

}  // namespace

bool find_tap_filters(const ChainJob& job, HeardTaps& taps, const ChainFir* master,
                      TapSearch search, TapFiltersFinding& finding) {
  return Search(job, taps, master).run(search, finding);
}

}  // namespace verdel::internal
