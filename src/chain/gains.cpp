#include "chain/gains.hpp"

#include <optional>
#include <utility>

#include "chain/chain_gain.hpp"
#include "signal/stem_sums.hpp"
#include "signal/sums.hpp"

namespace verdel::internal {
namespace {

constexpr double kLeastFall = 1.0;  // dB that each choice must take off what is left

/// One choice: a gain, and the taps' sum through it.
struct Candidate {
  FineGain gain;
  AudioArray heard;
  double left = 0.0;
};

Candidate try_gain(AudioView x, bool in_bands, const ChainJob& job) {
  Candidate candidate{.gain = find_fine_gain(x, in_bands, job), .heard = {}};
  candidate.heard = play(x, candidate.gain, job);
  candidate.left = left_under_engine_gain(candidate.heard.view(), job);
  return candidate;
}

/// The share of what the gain changes that lies on taps that would rather not have it. `before`:
/// the gain that the taps go through first, or null.
double share_against(const Candidate& candidate, const FineGain* before, const StemMap& taps,
                     const ChainJob& job) {
  const GainCurve gain(candidate.heard.view(), kEngineGain, job);
  auto rest = AudioArray::uninitialised(job.mix.rows(), job.mix.columns());
  take_rest(candidate.heard.view(), gain, job, rest);
  double total = 0.0, against = 0.0;
  for (const auto& tap : taps) {
    const AudioArray first =
        before == nullptr ? AudioArray() : play(tap.audio.view(), *before, job);
    const AudioView own = before == nullptr ? tap.audio.view() : first.view();
    const AudioArray turned = play(own, candidate.gain, job);
    double with_rest = 0.0, change = 0.0;
    for (std::size_t c = 0; c < rest.rows(); ++c) {
      const auto d = [&](std::size_t i) {
        return gain.at(c, i) * (turned.row(c)[i] - own.row(c)[i]);
      };
      with_rest += lane_sum(own.columns(), [&](std::size_t i) { return rest.row(c)[i] * d(i); });
      change += lane_sum(own.columns(), [&](std::size_t i) { return d(i) * d(i); });
    }
    total += change;
    if (change > 0.0 && 1.0 + 2.0 * with_rest / change < kVoteAgainst) against += change;
  }
  return against / std::max(total, 1e-30);
}

}  // namespace

GainsFinding find_gains(const ChainJob& job, StemMap& taps) {
  const AudioArray x = sum_of(taps, job.mix.rows(), job.mix.columns());
  GainsFinding finding;
  finding.left_before = finding.left_after = left_under_engine_gain(x.view(), job);
  const auto helps = [&](double left) { return left <= finding.left_after - kLeastFall; };
  const auto agreed = [&](const Candidate& candidate, const FineGain* before) {
    return share_against(candidate, before, taps, job) <= kMostAgainst;
  };

  constexpr std::size_t kPhases = 4;
  const auto tell = [&](std::size_t done) { job.tell("gains", done, kPhases); };
  tell(0);
  Candidate fine = try_gain(x.view(), false, job);
  const bool fine_holds = helps(fine.left) && agreed(fine, nullptr);
  if (fine_holds) finding.left_after = fine.left;
  tell(1);
  Candidate bands = try_gain(x.view(), true, job);
  const bool bands_hold = helps(bands.left) && agreed(bands, nullptr);
  if (bands_hold) finding.left_after = bands.left;
  tell(2);
  bool both_hold = false;
  std::optional<Candidate> both;
  if (fine_holds) {
    both = try_gain(fine.heard.view(), true, job);
    both_hold = helps(both->left) && agreed(*both, &fine.gain);
    if (both_hold) finding.left_after = both->left;
  }
  if (both_hold) {
    finding.used.push_back(std::move(fine.gain));
    finding.used.push_back(std::move(both->gain));
  } else if (bands_hold) {
    finding.used.push_back(std::move(bands.gain));
  } else if (fine_holds) {
    finding.used.push_back(std::move(fine.gain));
  }
  tell(3);
  for (const FineGain& gain : finding.used) {
    for (auto& tap : taps) tap.audio = play(tap.audio.view(), gain, job);
  }
  tell(4);
  return finding;
}

}  // namespace verdel::internal
