#include "chain/curve.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "alignment/tap_alignment.hpp"
#include "chain/chain_gain.hpp"
#include "chain/chain_lag.hpp"
#include "signal/stem_sums.hpp"
#include "signal/sums.hpp"

namespace verdel::internal {
namespace {

constexpr double kShortestSeconds = 5.0;
constexpr double kSilence = 1e-12;       // mean square
constexpr int kMostTurns = 4;            // of lining up single taps
constexpr double kLeastFall = 1.5;       // dB that the curve must take off what is left,
constexpr double kLeastValidated = 1.0;  // and in cross-validation
constexpr double kLiningUpHelps = 0.2;   // dB

// Moving a single tap must make a clear difference in most places where it sounds.
constexpr std::ptrdiff_t kSmallestMove = 3;  // samples
constexpr double kMoveFall = 0.2;            // dB
constexpr double kMoveShare = 0.1;           // of the tap's energy
constexpr double kMoveMajority = 0.6;        // of the blocks of 2 s
constexpr double kSoundingBlock = 1e-3;      // of the tap's loudest
constexpr double kFaintTap = 1e-6;           // of the mix's energy: not worth a look
constexpr double kBlockSeconds = 2.0;

std::string_view curve_name(ChainModel model, std::size_t index) {
  constexpr std::string_view kMidSide[] = {"mid", "side"};
  constexpr std::string_view kChannels[] = {"left", "right", "right into left", "left into right"};
  if (model == ChainModel::kOneCurve) return "master";
  return model == ChainModel::kMidSide ? kMidSide[index] : kChannels[index];
}

std::vector<ChainCurve> curves_of(const FilterFit& fit) {
  const auto& r = fit.responses();
  std::vector<std::vector<std::complex<double>>> found;
  const auto combined = [&](double sign) {
    auto curve = r[0];
    for (std::size_t k = 0; k < curve.size(); ++k) curve[k] += sign * r[1][k];
    return curve;
  };
  switch (fit.model()) {
    case ChainModel::kOneCurve:
      found = {r[0]};
      break;
    case ChainModel::kMidSide:
      found = {combined(1.0), combined(-1.0)};
      break;
    case ChainModel::kLeftRight:
      found = {r[0], r[3]};
      break;
    case ChainModel::kMatrix:
      found = {r[0], r[3], r[1], r[2]};
      break;
  }
  std::vector<ChainCurve> curves;
  for (std::size_t i = 0; i < found.size(); ++i) {
    curves.push_back({std::string(curve_name(fit.model(), i)), std::move(found[i])});
  }
  return curves;
}

/// Energies in blocks of 2 s of a signal given sample by sample, over all channels; what fills no
/// block is left out unless there is no other.
template <class Sample>
std::vector<double> block_energies(const ChainJob& job, Sample sample) {
  const std::size_t frames = job.mix.columns();
  const std::size_t block = std::min(frames, static_cast<std::size_t>(kBlockSeconds * job.sr));
  std::vector<double> energies(frames / block);
  run_indexed(job.pool, energies.size(), [&](std::size_t b) {
    job.stop.check();
    for (std::size_t c = 0; c < job.mix.rows(); ++c) {
      energies[b] += lane_sum(block, [&](std::size_t i) {
        const double value = sample(c, b * block + i);
        return value * value;
      });
    }
  });
  return energies;
}

double sum(const std::vector<double>& values) {
  return std::accumulate(values.begin(), values.end(), 0.0);
}

double at(AudioView audio, std::size_t channel, std::ptrdiff_t frame) {
  const auto row = audio.row(channel);
  return frame < 0 || frame >= static_cast<std::ptrdiff_t>(row.size())
             ? 0.0
             : row[static_cast<std::size_t>(frame)];
}

/// The taps, and by how much each is to be moved; the audio itself stays where it is.
struct LinedUp {
  const StemMap& taps;
  std::vector<std::ptrdiff_t> lags;

  void sum_into(AudioArray& sum) const {
    std::ranges::fill(sum.flat(), 0.0);
    for (std::size_t tap = 0; tap < taps.size(); ++tap) add(tap, sum);
  }
  void add(std::size_t tap, AudioArray& sum) const {
    const std::ptrdiff_t lag = lags[tap];
    const auto frames = static_cast<std::ptrdiff_t>(sum.columns());
    for (std::size_t c = 0; c < sum.rows(); ++c) {
      const auto from = taps[tap].audio.row(c);
      const auto to = sum.row(c);
      for (auto i = std::max<std::ptrdiff_t>(lag, 0); i < std::min(frames, frames + lag); ++i) {
        to[static_cast<std::size_t>(i)] += from[static_cast<std::size_t>(i - lag)];
      }
    }
  }
};

/// Room for one signal as heard and for what is left of the mix: fresh pages cost more than most of
/// what is done with them.
struct Room {
  AudioArray own, rest;

  explicit Room(AudioView like)
      : own(AudioArray::uninitialised(like.rows(), like.columns())),
        rest(AudioArray::uninitialised(like.rows(), like.columns())) {}
};

/// Whether a move takes a clear part off what is left, and in most of the blocks in which the tap
/// sounds. All three are energies by block: of the tap, of what is left before and after.
bool is_clear_move(const std::vector<double>& sounding, const std::vector<double>& before,
                   const std::vector<double>& after) {
  const double loudest = *std::ranges::max_element(sounding);
  std::size_t blocks = 0, better = 0;
  for (std::size_t b = 0; b < sounding.size(); ++b) {
    if (sounding[b] <= kSoundingBlock * loudest) continue;
    ++blocks;
    if (after[b] < before[b]) ++better;
  }
  const double was = sum(before), now = sum(after);
  return energy_db(was / now) > kMoveFall && was - now > kMoveShare * sum(sounding) &&
         static_cast<double>(better) > kMoveMajority * static_cast<double>(blocks);
}

/// Moves one tap if what is left is clearly less for it. `room.rest`, the mix minus gain times what
/// is heard, is kept up to date.
bool line_up_tap(const ChainJob& job, const FilterFit& fit, const GainCurve& gain, std::size_t tap,
                 LinedUp& lined, Room& room, double mix_energy) {
  play_to_measure(lined.taps[tap].audio.view(), lined.lags[tap], fit.fir(), job, room.own);
  const AudioView own = room.own.view(), rest = room.rest.view();
  const auto heard = [&](std::size_t c, std::size_t i) { return gain.at(c, i) * own.row(c)[i]; };
  const std::vector<double> sounding = block_energies(job, heard);
  if (sum(sounding) < kFaintTap * mix_energy) return false;
  const StretchReader without_it = [&](std::size_t c, std::size_t first, std::span<float> into) {
    for (std::size_t i = 0; i < into.size(); ++i) {
      const std::size_t frame = first + i;
      into[i] =
          frame < rest.columns() ? static_cast<float>(rest.row(c)[frame] + heard(c, frame)) : 0.0F;
    }
  };
  const std::ptrdiff_t lag =
      coherent_lag(without_it, reader_of(own), own.rows(), own.columns(), job);
  const auto farthest = static_cast<std::ptrdiff_t>(2.0 * kLongestChainLag * job.sr);
  if (std::abs(lag) < kSmallestMove || std::abs(lined.lags[tap] + lag) > farthest) return false;
  const auto moved = [&](std::size_t c, std::size_t i) {
    const double later = at(own, c, static_cast<std::ptrdiff_t>(i) - lag);
    return rest.row(c)[i] + heard(c, i) - gain.at(c, i) * later;
  };
  const auto before =
      block_energies(job, [&](std::size_t c, std::size_t i) { return rest.row(c)[i]; });
  if (!is_clear_move(sounding, before, block_energies(job, moved))) return false;
  for (std::size_t c = 0; c < rest.rows(); ++c) {
    const auto row = room.rest.row(c);
    for (std::size_t i = 0; i < row.size(); ++i) row[i] = moved(c, i);
  }
  lined.lags[tap] += lag;
  return true;
}

/// Moves single taps, the loudest first; returns whether any moved.
bool line_up(const ChainJob& job, const FilterFit& fit, LinedUp& lined, Room& room) {
  const GainCurve gain(fit.heard(), kEngineGain, job);
  take_rest(fit.heard(), gain, job, room.rest);
  const double mix_energy = energy_of(job.mix);
  std::vector<double> energies;
  for (const auto& tap : lined.taps) energies.push_back(energy_of(tap.audio.view()));
  std::vector<std::size_t> order(lined.taps.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::ranges::stable_sort(order, std::greater<>(), [&](std::size_t i) { return energies[i]; });
  bool any = false;
  for (const std::size_t tap : order) {
    any |= line_up_tap(job, fit, gain, tap, lined, room, mix_energy);
  }
  return any;
}

/// The vote of one tap: how the rest changes if the curve, beyond its level, is taken off it.
CurveVote vote_of(const ChainJob& job, const FilterFit& fit, AudioView tap, std::ptrdiff_t lag,
                  const GainCurve& gain, Room& room, double mix_energy) {
  play_to_measure(tap, lag, fit.fir(), job, room.own);
  const auto moved = [&](std::size_t c, std::size_t i) {
    return at(tap, c, static_cast<std::ptrdiff_t>(i) - lag);
  };
  const AudioView own = room.own.view(), rest = room.rest.view();
  double cross = 0.0;
  for (std::size_t c = 0; c < tap.rows(); ++c) {
    cross += lane_sum(tap.columns(), [&](std::size_t i) { return own.row(c)[i] * moved(c, i); });
  }
  const double level = cross / std::max(energy_of(tap), 1e-30);
  double with_rest = 0.0, change = 0.0;
  for (std::size_t c = 0; c < tap.rows(); ++c) {
    const auto d = [&](std::size_t i) {
      return gain.at(c, i) * (own.row(c)[i] - level * moved(c, i));
    };
    with_rest += lane_sum(tap.columns(), [&](std::size_t i) { return rest.row(c)[i] * d(i); });
    change += lane_sum(tap.columns(), [&](std::size_t i) { return d(i) * d(i); });
  }
  CurveVote vote{.vote = {}, .change = change};
  if (change > 1e-9 * mix_energy) vote.vote = 1.0 + 2.0 * with_rest / change;
  return vote;
}

void take_votes(const ChainJob& job, const FilterFit& fit, const LinedUp& lined, Room& room,
                CurveFinding& finding) {
  const GainCurve gain(fit.heard(), kEngineGain, job);
  take_rest(fit.heard(), gain, job, room.rest);
  const double mix_energy = energy_of(job.mix);
  double total = 0.0, against = 0.0;
  for (std::size_t tap = 0; tap < lined.taps.size(); ++tap) {
    job.stop.check();
    finding.votes.push_back(
        vote_of(job, fit, lined.taps[tap].audio.view(), lined.lags[tap], gain, room, mix_energy));
    const CurveVote& vote = finding.votes.back();
    total += vote.change;
    if (vote.vote && *vote.vote < kVoteAgainst) against += vote.change;
  }
  finding.against = against / std::max(total, 1e-30);
}

std::string objection(const CurveFinding& finding) {
  const double fall = finding.left_before - finding.left_after;
  if (!(fall >= kLeastFall)) {
    return fmt::format("no EQ found: a curve would take {:.1f} dB off what is left",
                       std::max(fall, 0.0));
  }
  if (!(finding.cross_validation >= kLeastValidated)) {
    return fmt::format("no EQ found: on passages that it has not seen a curve takes {:.1f} dB",
                       std::max(finding.cross_validation, 0.0));
  }
  if (finding.against > kMostAgainst) {
    return fmt::format("an EQ fits, but not all taps went through it ({:.0f} % against)",
                       100.0 * finding.against);
  }
  return {};
}

std::string cannot_look(const ChainJob& job, AudioView x) {
  if (job.mix.rows() > 2) return "more than two channels";
  if (static_cast<double>(job.mix.columns()) < kShortestSeconds * job.sr) {
    return "shorter than 5 s";
  }
  const double least = kSilence * static_cast<double>(job.mix.columns());
  const double taps = energy_of(x), mix = energy_of(job.mix);
  if (!std::isfinite(taps + mix)) return "a sample is not a finite number";
  if (taps < least || mix < least) return "digital silence";
  return {};
}

/// Plays the taps through the filter, or moves them alone.
void hand_out(const ChainJob& job, const std::vector<std::ptrdiff_t>& lags, const ChainFir* fir,
              AudioArray& room, StemMap& taps) {
  for (std::size_t i = 0; i < taps.size(); ++i) {
    AudioArray& audio = taps[i].audio;
    if (fir != nullptr) {
      play(audio.view(), lags[i], *fir, job, room);
      std::swap(audio, room);
    } else if (lags[i] != 0) {
      audio = align_tap(audio.view(), lags[i]);
    }
  }
}

/// Moves all taps by the lag of their sum, if that is not a step back: where one loud tap is late,
/// it alone decides that lag.
void line_up_all(const ChainJob& job, AudioArray& x, double left_given, LinedUp& lined) {
  const std::ptrdiff_t bulk =
      coherent_lag(reader_of(job.mix), reader_of(x.view()), x.rows(), x.columns(), job);
  if (bulk == 0) return;
  AudioArray moved = align_tap(x.view(), bulk);
  if (left_under_engine_gain(moved.view(), job) > left_given) return;
  x = std::move(moved);
  std::ranges::fill(lined.lags, bulk);
}

}  // namespace

CurveFinding find_curve(const ChainJob& job, StemMap& taps) {
  CurveFinding finding;
  finding.lags.assign(taps.size(), 0);
  constexpr std::size_t kPhases = 4;
  const auto tell = [&](std::size_t done) { job.tell("curve", done, kPhases); };
  tell(0);
  AudioArray x = sum_of(taps, job.mix.rows(), job.mix.columns());
  finding.why_not = cannot_look(job, x.view());
  if (!finding.why_not.empty()) return finding;

  const double left_given = left_under_engine_gain(x.view(), job);
  const double left_shifted = left_under_engine_gain(
      align_tap(x.view(), plain_lag(job.mix, x.view(), job.sr, job.stop)).view(), job);
  LinedUp lined{taps, finding.lags};
  line_up_all(job, x, left_given, lined);

  Room room(job.mix);
  std::optional<FilterFit> fit;
  for (int turn = 0; turn < kMostTurns; ++turn) {
    fit.emplace(job, x.view());
    fit->find_first(x.view());
    if (!line_up(job, *fit, lined, room)) break;
    lined.sum_into(x);
  }
  tell(1);
  fit->refine(x.view());
  tell(2);

  const double left_lined = left_under_engine_gain(x.view(), job);
  finding.left_before = std::min({left_given, left_lined, left_shifted});
  finding.left_after = left_under_engine_gain(fit->heard(), job);
  finding.cross_validation = fit->cross_validate(x.view());
  finding.model = fit->model();
  finding.deviation = fit->deviation();
  finding.curves = curves_of(*fit);
  finding.hz = fit->basis().frequencies();
  tell(3);
  take_votes(job, *fit, lined, room, finding);
  finding.why_not = objection(finding);
  finding.used = finding.why_not.empty();
  if (finding.used || left_lined < left_given - kLiningUpHelps) {
    finding.lags = lined.lags;
    hand_out(job, finding.lags, finding.used ? &fit->fir() : nullptr, room.own, taps);
  }
  tell(4);
  return finding;
}

}  // namespace verdel::internal
