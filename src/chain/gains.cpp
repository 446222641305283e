#include "chain/gains.hpp"

#include <optional>
#include <utility>

#include "chain/chain_gain.hpp"
#include "chain/gain_player.hpp"
#include "chain/gain_votes.hpp"
#include "chain/heard_taps.hpp"

namespace verdel::internal {
namespace {

constexpr double kLeastFall = 1.0;  // dB that each choice must take off what is left
// Gains apart have twice as many factors, still only one for 64 samples or more, which alone would
// take a tenth of a decibel. On songs whose channels went through one gain they took 0.0 to 0.3 dB
// more, on songs whose channels did not 1.4 to 14.
constexpr double kLeastApart = 1.0;     // dB that gains apart must take more than the same for both
constexpr double kNothingLeft = -60.0;  // dB: what is left there tells no channel from the other
// Bands whose expected fall, and a seventh more, is a quarter of a decibel short are not tried.
constexpr double kBandDoubt = 1.15, kMargin = 0.25;

/// The taps' sum as heard on the way, and the engine's gain over it.
struct Sound {
  Heard audio;
  GainCurve engine;
  double left;

  Sound(Heard heard, const ChainJob& job)
      : audio(std::move(heard)),
        engine(audio.view(), kEngineGain, job),
        left(left_under_engine_gain(audio.view(), job)) {}
  GainTarget target() const { return {audio.view(), engine}; }
};

/// One choice: a gain, and the taps' sum through it.
struct Candidate {
  FineGain gain;
  Sound sound;

  Candidate(FineGain played, Sound heard) : gain(std::move(played)), sound(std::move(heard)) {}
};

class Choice {
 public:
  Choice(const ChainJob& job, const StemMap& taps, double left)
      : job_(job), taps_(taps), left_(left) {}
  double left() const { return left_; }

  /// The best gain for `from`, which the taps reach through `before`, if it takes enough more off
  /// than what was taken so far: the same in both channels, or apart where that is clearly better.
  std::optional<Candidate> best(const Sound& from, bool in_bands, const FineGain* before) {
    const GainForm linked{.in_bands = in_bands, .apart = false}, apart{in_bands, true};
    const double expected = expected_fall(from.target(), linked, job_);
    const double needed = from.left - left_ + kLeastFall;
    std::optional<Candidate> taken;
    // How a gain for all frequencies will do is known only when it is played.
    if (!in_bands || kBandDoubt * expected > needed - kMargin) {
      try_gain(from, linked, before, taken);
    }
    const bool stereo = job_.mix.rows() == 2;
    if (stereo && from.left > kNothingLeft &&
        expected_fall(from.target(), apart, job_) >= expected + kLeastApart) {
      try_gain(from, apart, before, taken);
    }
    return taken;
  }

 private:
  /// Puts the gain in the place of the one taken so far if it is better and the taps agree.
  void try_gain(const Sound& from, GainForm form, const FineGain* before,
                std::optional<Candidate>& taken) {
    FineGain gain = find_fine_gain(from.target(), form, job_);
    if (form.apart) play_engine_along(from.target(), gain);
    auto heard = Heard::uninitialised(from.audio.rows(), from.audio.columns());
    play(from.audio.view(), gain, job_, heard);
    Sound sound(std::move(heard), job_);
    if (!(sound.left <= left_ - kLeastFall)) return;
    const GainCurve& engine = form.apart ? from.engine : sound.engine;
    const GainTarget result = sound.target();
    if (share_against({gain, before, engine, result}, taps_, job_) > kMostAgainst) return;
    left_ = sound.left;
    taken.emplace(std::move(gain), std::move(sound));
  }

  const ChainJob& job_;
  const StemMap& taps_;
  double left_;
};

Heard sum_as_heard(const StemMap& taps, const ChainJob& job) {
  auto sum = Heard::uninitialised(job.mix.rows(), job.mix.columns());
  Heard unused;
  HeardTaps(taps).sum(job, sum, unused);
  return sum;
}

}  // namespace

double left_behind_gains(const ChainJob& job, Heard sum) {
  const StemMap nobody;
  const Sound given(std::move(sum), job);
  Choice choice(job, nobody, given.left);
  const auto fine = choice.best(given, false, nullptr);
  choice.best(given, true, nullptr);
  if (fine) choice.best(fine->sound, true, &fine->gain);
  return choice.left();
}

GainsFinding find_gains(const ChainJob& job, StemMap& taps) {
  constexpr std::size_t kPhases = 4;
  const auto tell = [&](std::size_t done) { job.tell("gains", done, kPhases); };
  tell(0);
  GainsFinding finding;
  {
    const Sound given(sum_as_heard(taps, job), job);
    Choice choice(job, taps, given.left);
    auto fine = choice.best(given, false, nullptr);
    tell(1);
    auto bands = choice.best(given, true, nullptr);
    tell(2);
    auto both = fine ? choice.best(fine->sound, true, &fine->gain) : std::nullopt;
    tell(3);
    finding.left_before = given.left;
    finding.left_after = choice.left();
    if (fine && (both || !bands)) finding.used.push_back(std::move(fine->gain));
    if (both || bands) finding.used.push_back(std::move(both ? both->gain : bands->gain));
  }
  for (const FineGain& gain : finding.used) play(gain, job, taps);
  tell(4);
  return finding;
}

}  // namespace verdel::internal
