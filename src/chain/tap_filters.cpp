#include "chain/tap_filters.hpp"

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

#include "chain/chain_gain.hpp"
#include "chain/effect_fit.hpp"
#include "chain/passages.hpp"
#include "chain/tap_promise.hpp"
#include "signal/sums.hpp"

namespace verdel::internal {
namespace {

constexpr double kLeastFall = 1.0;       // dB that a filter must take off what is left,
constexpr double kLeastValidated = 1.0;  // and beat a plain factor by on unseen passages
constexpr double kLeastBetter = 0.5;     // dB, where it stands for one that was found before
// A first glance is not exact: what promises this much is tried.
constexpr double kWorthATry = 0.7;  // dB
// A tap whose filter did not hold, or could not be bettered, is looked at again when the rest has
// fallen by this much.
constexpr double kMuchLess = 3.0;  // dB
constexpr int kMostRounds = 16;
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
  Search(const ChainJob& song, HeardTaps& taps, const ChainFir* master)
      : passages_(song, taps),
        job_(passages_.job()),
        taps_(taps),
        master_(master),
        filters_(taps.size()),
        settled_(taps.size()),
        heard_(passages_.room()),
        others_(passages_.room()),
        own_(passages_.room()),
        rest_(passages_.room()),
        room_(passages_.room()) {
    mix_energy_ = energy_judged([&](std::size_t c) { return job_.mix.row(c); });
    listen();
  }

  bool run(TapSearch search, TapFiltersFinding& finding) {
    if (finding.filters.empty()) finding.left_before = left_;
    if (!finding.settled.empty()) settled_ = finding.settled;
    for (auto& filter : finding.filters) filters_[filter.tap] = std::move(filter);
    int rounds = 0;
    for (bool more = true; rounds < kMostRounds && left_ > kEnough && improve(more); ++rounds) {
      more = search == TapSearch::kAll && !new_equaliser_;
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
  /// All that is heard with the taps' ways as they are, and what is left of the mix.
  void listen() {
    passages_.hear_all(master_, heard_, room_);
    gain_.emplace(heard_.view(), kFittingGain, job_);
    take_rest(heard_.view(), *gain_, job_, rest_);
    passages_.silence_rest(rest_);
    left_ = level_of(rest_);
  }

  /// The level of what is judged of some rest, in dB of the mix.
  double level_of(const Heard& rest) const {
    return energy_db(energy_judged([&](std::size_t c) { return rest.row(c); }) / mix_energy_);
  }

  template <class Row>
  double energy_judged(Row row) const {
    double energy = 0.0;
    for (std::size_t c = 0; c < job_.mix.rows(); ++c) {
      for (const SampleSpan& span : passages_.judged()) {
        energy += sum_of_squares(row(c).subspan(span.first, span.length()));
      }
    }
    return energy;
  }

  /// Takes a better filter, or, if it may be one more, another: of the tap that promises most, if
  /// it holds. Whether there was one to be had.
  bool improve(bool more) {
    for (const auto& [tap, promise] : worth_a_try(more)) {
      std::optional<Trial> best;
      bool good = false;
      for (auto& trial : trials(tap, promise)) {
        const bool holds = trial.filter.cross_validation >= kLeastValidated;
        good |= holds && left_ - trial.left >= kLeastBetter;
        const double least = best ? left_ - best->left : filters_[tap] ? kLeastBetter : kLeastFall;
        if (holds && left_ - trial.left >= least) best = std::move(trial);
      }
      settled_[tap] = !good;
      if (!best) continue;
      take(std::move(*best));
      return true;
    }
    return false;
  }

  void take(Trial trial) {
    const std::size_t tap = trial.filter.tap;
    trial.filter.fall = left_ - trial.left + (filters_[tap] ? filters_[tap]->fall : 0.0);
    new_equaliser_ |= !filters_[tap] && !trial.filter.is_effect;
    if (left_ - trial.left >= kMuchLess) settled_.assign(settled_.size(), false);
    taps_.paths[tap].own = std::move(trial.fir);
    filters_[tap] = std::move(trial.filter);
    listen();
  }

  struct Candidate {
    std::size_t tap = 0;
    TapPromise promise;
    double best() const { return std::max(promise.equaliser, promise.effect); }
  };

  /// The best first. A filter that was found is fitted again, because the gain has changed with it.
  std::vector<Candidate> worth_a_try(bool more) const {
    std::vector<std::size_t> chosen;
    for (std::size_t tap = 0; tap < taps_.size(); ++tap) {
      if (!settled_[tap] && (more || filters_[tap])) chosen.push_back(tap);
    }
    const auto promises = glance_at_taps(passages_, chosen, *gain_, rest_.view());
    std::vector<Candidate> candidates;
    for (std::size_t i = 0; i < chosen.size(); ++i) {
      const Candidate candidate{chosen[i], promises[i]};
      if (candidate.best() >= (filters_[chosen[i]] ? kLeastBetter : kWorthATry)) {
        candidates.push_back(candidate);
      }
    }
    std::ranges::stable_sort(candidates, std::greater<>(), &Candidate::best);
    return candidates;
  }

  /// The equaliser first: what it explains needs no effect. Where an effect promises clearly more,
  /// the equaliser is what the effect does to short spectra.
  std::vector<Trial> trials(std::size_t tap, const TapPromise& promise) {
    std::vector<Trial> trials;
    const bool effect_before = filters_[tap] && filters_[tap]->is_effect;
    const bool may_be_equaliser =
        promise.equaliser >= kLeastFall && promise.effect < promise.equaliser + kWorthATry;
    set_apart(tap);
    if (!effect_before && (filters_[tap] || may_be_equaliser)) {
      trials.push_back(try_equaliser(tap));
    }
    const double explained = trials.empty() ? 0.0 : left_ - trials.front().left;
    if (effect_before || promise.effect >= std::max(explained, 0.0) + kWorthATry) {
      if (auto trial = try_effect(tap)) trials.push_back(std::move(*trial));
    }
    return trials;
  }

  /// Leaves the tap without its own filter in own_, and all else in others_.
  void set_apart(std::size_t tap) {
    passages_.hear(tap, master_, own_, room_);
    for (std::size_t i = 0; i < heard_.size(); ++i) {
      others_.data()[i] = heard_.data()[i] - own_.data()[i];
    }
    if (!taps_.paths[tap].own) return;
    std::optional<ChainFir> filter;
    std::swap(taps_.paths[tap].own, filter);
    passages_.hear(tap, master_, own_, room_);
    std::swap(taps_.paths[tap].own, filter);
  }

  void add_others(Heard& audio) const {
    for (std::size_t i = 0; i < audio.size(); ++i) audio.data()[i] += others_.data()[i];
  }

  /// What is left with the tap that is set apart filtered, under the gain that goes with it.
  double left_with(const ChainFir& fir) {
    play_to_measure(own_.view(), fir, job_, room_);
    add_others(room_);
    take_rest(room_.view(), GainCurve(room_.view(), kFittingGain, job_), job_, room_);
    return level_of(room_);
  }

  Trial try_equaliser(std::size_t tap) {
    FilterFit fit(job_, own_.view(), {.others = others_.view(), .gain = &*gain_});
    for (int step = 0; step < kEqualiserSteps; ++step) fit.step(own_.view());
    Trial trial{.filter = {.tap = tap,
                           .cross_validation = fit.cross_validate(own_.view()),
                           .hz = fit.basis().frequencies(),
                           .curves = {{"tap", fit.responses().front()}},
                           .deviation = fit.deviation(),
                           .decay_db = {}},
                .fir = fit.fir()};
    trial.left = left_with(trial.fir);
    return trial;
  }

  /// Nothing if it does not hold on passages that it has not seen.
  std::optional<Trial> try_effect(std::size_t tap) {
    const bool again = filters_[tap] && filters_[tap]->is_effect;
    const bool instead = filters_[tap] && !again;
    if (instead) {
      std::ranges::copy(own_.flat(), room_.data());
      add_others(room_);
      take_rest(room_.view(), *gain_, job_, room_);
      passages_.silence_rest(room_);
    }
    auto fit = fit_effect({.source = own_.view(),
                           .rest = (instead ? room_ : rest_).view(),
                           .gain = *gain_,
                           .judged = passages_.judged(),
                           .before = again ? &*taps_.paths[tap].own : nullptr},
                          kLeastValidated, job_);
    if (!fit) return std::nullopt;
    Trial trial{.filter = {.tap = tap,
                           .is_effect = true,
                           .cross_validation =
                               again ? filters_[tap]->cross_validation : fit->cross_validation,
                           .hz = {},
                           .curves = {},
                           .deviation = {},
                           .decay_db = decay_of(fit->fir, job_.sr)},
                .fir = std::move(fit->fir)};
    trial.filter.seconds = reverberation_seconds(trial.filter.decay_db);
    trial.left = left_with(trial.fir);
    return trial;
  }

  const Passages passages_;
  const ChainJob& job_;  // of the passages
  HeardTaps& taps_;
  const ChainFir* master_;
  double mix_energy_ = 0.0;
  std::vector<std::optional<TapFilter>> filters_;
  std::vector<bool> settled_;
  bool new_equaliser_ = false;
  Heard heard_, others_, own_, rest_, room_;
  std::optional<GainCurve> gain_;
  double left_ = 0.0;
};

}  // namespace

bool find_tap_filters(const ChainJob& job, HeardTaps& taps, const ChainFir* master,
                      TapSearch search, TapFiltersFinding& finding) {
  return Search(job, taps, master).run(search, finding);
}

}  // namespace verdel::internal
