#include "chain/curve.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>

#include "chain/chain_gain.hpp"
#include "chain/chain_lag.hpp"
#include "signal/instruction_sets.hpp"
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
constexpr double kFaintTap = 1e-6;           // of all that is heard: not worth a look
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

/// Energies in blocks of 2 s of a signal given sample by sample, sample(channel, frame, gain), over
/// all channels; what fills no block is left out unless there is no other.
template <class Sample>
std::vector<double> block_energies(const ChainJob& job, const GainCurve& gain, Sample sample) {
  const std::size_t frames = job.mix.columns();
  const std::size_t block = std::min(frames, static_cast<std::size_t>(kBlockSeconds * job.sr));
  std::vector<double> energies(frames / block);
  run_indexed(job.pool, energies.size(), [&](std::size_t b) {
    job.stop.check();
    std::vector<float> gains(block);
    for (std::size_t c = 0; c < job.mix.rows(); ++c) {
      gain.read(c, b * block, gains);
      energies[b] += lane_sum(block, [&](std::size_t i) {
        const auto value = static_cast<double>(sample(c, b * block + i, gains[i]));
        return value * value;
      });
    }
  });
  return energies;
}

double sum(const std::vector<double>& values) {
  return std::accumulate(values.begin(), values.end(), 0.0);
}

float at(HeardView audio, std::size_t channel, std::ptrdiff_t frame) {
  const auto row = audio.row(channel);
  return frame < 0 || frame >= static_cast<std::ptrdiff_t>(row.size())
             ? 0.0F
             : row[static_cast<std::size_t>(frame)];
}

/// sum += gain * audio, with either sign.
void add_under_gain(HeardView audio, const GainCurve& gain, float sign, const ChainJob& job,
                    Heard& sum) {
  for_each_part(job, [&](const ChannelPart& part) {
    const auto row = audio.row(part.channel);
    const auto to = sum.row(part.channel);
    for_each_stretch(gain, part, job.stop, [&](std::size_t first, std::span<const float> gains) {
      for (std::size_t i = 0; i < gains.size(); ++i) {
        to[first + i] += sign * gains[i] * row[first + i];
      }
    });
  });
}

/// Room for one signal as heard and for what is left of the mix: fresh pages cost more than most of
/// what is done with them.
struct Room {
  Heard own, rest;

  explicit Room(AudioView like)
      : own(Heard::uninitialised(like.rows(), like.columns())),
        rest(Heard::uninitialised(like.rows(), like.columns())) {}
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

/// What the lining up of single taps goes by.
struct LiningUp {
  const ChainJob& job;
  const FilterFit& fit;
  GainCurve gain;
  HeardTaps& taps;
  Room& room;  ///< its rest, the mix minus gain times what is heard, is kept up to date
  std::optional<CoherentLag> lags;
  LagFilters master;

  LiningUp(const ChainJob& of, const FilterFit& around, HeardTaps& all, Room& scratch)
      : job(of), fit(around), gain(fit.heard(), kEngineGain, job), taps(all), room(scratch) {
    take_rest(fit.heard(), gain, job, room.rest);
    lags.emplace(job, reader_of(room.rest.view()));
    master = lags->filters_of(fit.fir());
  }
};

std::ptrdiff_t lag_of_tap(const LiningUp& state, std::size_t tap) {
  const TapPath& path = state.taps.paths[tap];
  const CoherentLag& lags = *state.lags;
  const auto frames = lags.loudest_frames(state.taps.given(tap));
  const StretchReader given = under_gain(state.gain, reader_of(state.taps.given(tap), path.lag));
  if (!path.own) return lags.of_part(frames, given, state.master);
  const ChainFir way = *state.taps.way(tap, &state.fit.fir());
  if (way.length <= lags.longest_fir()) return lags.of_part(frames, given, lags.filters_of(way));
  state.taps.hear(tap, &state.fit.fir(), state.job, state.room.own);
  return lags.of_part(frames, under_gain(state.gain, reader_of(state.room.own.view())), {});
}

/// Whether what is left is clearly less for a move of `room.own`, the tap as it is heard.
bool move_helps(const LiningUp& state, std::ptrdiff_t lag) {
  const ChainJob& job = state.job;
  const HeardView own = state.room.own.view(), rest = state.room.rest.view();
  const auto energies = [&](auto sample) { return block_energies(job, state.gain, sample); };
  const auto moved = [&](std::size_t c, std::size_t i, float g) {
    const float later = at(own, c, static_cast<std::ptrdiff_t>(i) - lag);
    return rest.row(c)[i] + g * (own.row(c)[i] - later);
  };
  return is_clear_move(
      energies([&](std::size_t c, std::size_t i, float g) { return g * own.row(c)[i]; }),
      energies([&](std::size_t c, std::size_t i, float) { return rest.row(c)[i]; }),
      energies(moved));
}

/// Moves one tap if that helps.
bool line_up_tap(LiningUp& state, std::size_t tap) {
  const ChainJob& job = state.job;
  const std::ptrdiff_t lag = lag_of_tap(state, tap);
  std::ptrdiff_t& moved_so_far = state.taps.paths[tap].lag;
  const auto farthest = static_cast<std::ptrdiff_t>(2.0 * kLongestChainLag * job.sr);
  if (std::abs(lag) < kSmallestMove || std::abs(moved_so_far + lag) > farthest) return false;
  Room& room = state.room;
  state.taps.hear(tap, &state.fit.fir(), job, room.own);
  if (!move_helps(state, lag)) return false;
  add_under_gain(room.own.view(), state.gain, 1.0F, job, room.rest);
  moved_so_far += lag;
  state.taps.hear(tap, &state.fit.fir(), job, room.own);
  add_under_gain(room.own.view(), state.gain, -1.0F, job, room.rest);
  state.lags.emplace(job, reader_of(room.rest.view()));
  return true;
}

/// Moves single taps, the loudest first; returns whether any moved.
bool line_up(const ChainJob& job, const FilterFit& fit, const std::vector<double>& energies,
             HeardTaps& taps, Room& room) {
  std::vector<std::size_t> order(taps.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::ranges::stable_sort(order, std::greater<>(), [&](std::size_t i) { return energies[i]; });
  const double faint = kFaintTap * energy_of(fit.heard(), job);
  LiningUp state(job, fit, taps, room);
  bool any = false;
  for (const std::size_t tap : order) {
    if (energies[tap] > faint) any |= line_up_tap(state, tap);
  }
  return any;
}

/// Energies of the taps as they came.
std::vector<double> energies_of(const HeardTaps& taps, const ChainJob& job) {
  std::vector<double> energies(taps.size());
  run_indexed(job.pool, taps.size(), [&](std::size_t tap) {
    job.stop.check();
    energies[tap] = energy_of(taps.given(tap));
  });
  return energies;
}

/// Sums over a tap as it is heard, o, as it comes to the master, p, and what is left, r, under the
/// gain g.
struct VoteSums {
  double op = 0.0, pp = 0.0;
  double r_go = 0.0, r_gp = 0.0;
  double go_go = 0.0, go_gp = 0.0, gp_gp = 0.0;

  void add(const VoteSums& other) {
    op += other.op;
    pp += other.pp;
    r_go += other.r_go;
    r_gp += other.r_gp;
    go_go += other.go_go;
    go_gp += other.go_gp;
    gp_gp += other.gp_gp;
  }
};

VERDEL_INLINE VoteSums vote_sums(const float* heard, const float* plain, const float* rest,
                                 std::span<const float> gains) {
  constexpr std::size_t kLanes = 8;
  double op[kLanes] = {}, pp[kLanes] = {}, r_go[kLanes] = {}, r_gp[kLanes] = {};
  double go_go[kLanes] = {}, go_gp[kLanes] = {}, gp_gp[kLanes] = {};
  // What fills no whole row of lanes is a few samples of a stretch, and left out.
  for (std::size_t i = 0; i + kLanes <= gains.size(); i += kLanes) {
    for (std::size_t k = 0; k < kLanes; ++k) {
      const auto o = static_cast<double>(heard[i + k]), p = static_cast<double>(plain[i + k]);
      const auto r = static_cast<double>(rest[i + k]), g = static_cast<double>(gains[i + k]);
      const double go = g * o, gp = g * p;
      op[k] += o * p;
      pp[k] += p * p;
      r_go[k] += r * go;
      r_gp[k] += r * gp;
      go_go[k] += go * go;
      go_gp[k] += go * gp;
      gp_gp[k] += gp * gp;
    }
  }
  const auto sum = [](const double* lanes) { return std::accumulate(lanes, lanes + kLanes, 0.0); };
  return {.op = sum(op),
          .pp = sum(pp),
          .r_go = sum(r_go),
          .r_gp = sum(r_gp),
          .go_go = sum(go_go),
          .go_gp = sum(go_gp),
          .gp_gp = sum(gp_gp)};
}

/// The vote of one tap: how the rest changes if the curve, beyond its level, is taken off it.
CurveVote vote_of(const VoteSums& sums, double mix_energy) {
  // What the curve changes is g (o - level p).
  const double level = sums.op / std::max(sums.pp, 1e-30);
  const double with_rest = sums.r_go - level * sums.r_gp;
  const double change = sums.go_go - level * (2.0 * sums.go_gp - level * sums.gp_gp);
  CurveVote vote{.vote = {}, .change = std::max(change, 0.0)};
  if (vote.change > 1e-9 * mix_energy) vote.vote = 1.0 + 2.0 * with_rest / vote.change;
  return vote;
}

/// `rest` is the mix minus `gain` times what is heard.
VoteSums vote_sums_of(const ChainJob& job, const FilterFit& fit, const GainCurve& gain,
                      HeardView rest, const HeardTaps& taps, std::size_t tap, Heard& room) {
  const TapPath& path = taps.paths[tap];
  const bool is_filtered = path.own.has_value();
  if (is_filtered) taps.hear(tap, nullptr, job, room);
  const ChainFir way = *taps.way(tap, &fit.fir());
  std::vector<VoteSums> sums(play_tasks(taps.given(tap), way));
  play_to_measure(taps.given(tap), path.lag, way, job, [&](const PlayedStretch& heard) {
    const auto part_of = [&](HeardView audio) {
      return audio.row(heard.channel).data() + heard.first;
    };
    std::vector<float> gains(heard.samples.size());
    gain.read(heard.channel, heard.first, gains);
    sums[heard.task].add(run_kernel<vote_sums>(
        heard.samples.data(), is_filtered ? part_of(room.view()) : heard.given.data(),
        part_of(rest), std::span<const float>(gains)));
  });
  for (std::size_t i = 1; i < sums.size(); ++i) sums.front().add(sums[i]);
  return sums.front();
}

void take_votes(const ChainJob& job, const FilterFit& fit, const GainCurve& gain,
                const HeardTaps& taps, Room& room, CurveFinding& finding) {
  const double mix_energy = energy_of_mix(job);
  double total = 0.0, against = 0.0;
  for (std::size_t tap = 0; tap < taps.size(); ++tap) {
    const VoteSums sums = vote_sums_of(job, fit, gain, room.rest.view(), taps, tap, room.own);
    finding.votes.push_back(vote_of(sums, mix_energy));
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

std::string cannot_look(const ChainJob& job, HeardView x) {
  if (job.mix.rows() > 2) return "more than two channels";
  if (static_cast<double>(job.mix.columns()) < kShortestSeconds * job.sr) {
    return "shorter than 5 s";
  }
  const double least = kSilence * static_cast<double>(job.mix.columns());
  const double taps = energy_of(x, job), mix = energy_of_mix(job);
  if (!std::isfinite(taps + mix)) return "a sample is not a finite number";
  if (taps < least || mix < least) return "digital silence";
  return {};
}

std::vector<std::ptrdiff_t> lags_of(const HeardTaps& taps) {
  std::vector<std::ptrdiff_t> lags;
  for (const TapPath& path : taps.paths) lags.push_back(path.lag);
  return lags;
}

void set_lags(const std::vector<std::ptrdiff_t>& lags, HeardTaps& taps) {
  for (std::size_t tap = 0; tap < lags.size(); ++tap) taps.paths[tap].lag = lags[tap];
}

/// Moves all taps by the lag of their sum `x`, if that is not a step back: where one loud tap is
/// late, it alone decides that lag.
void line_up_all(const ChainJob& job, double left_given, HeardTaps& taps, Heard& x, Room& room) {
  const std::ptrdiff_t bulk = CoherentLag(job, reader_of(job.mix)).against(reader_of(x.view()));
  if (bulk == 0) return;
  for (TapPath& path : taps.paths) path.lag += bulk;
  taps.sum(job, room.rest, room.own);
  if (left_under_engine_gain(room.rest.view(), job) > left_given) {
    for (TapPath& path : taps.paths) path.lag -= bulk;
  } else {
    std::swap(x, room.rest);
  }
}

/// What is left where all taps are moved by the lag of a plain cross-correlation; `left_given`
/// where they are not moved at all.
double left_shifted(const ChainJob& job, HeardView x, double left_given, Heard& room) {
  const std::ptrdiff_t lag = plain_lag(job.mix, x, job);
  if (lag == 0) return left_given;
  for_each_part(job, [&](const ChannelPart& part) {
    const auto row = room.row(part.channel);
    for (std::size_t i = part.span.first; i < part.span.stop; ++i) {
      row[i] = at(x, part.channel, static_cast<std::ptrdiff_t>(i) - lag);
    }
  });
  return left_under_engine_gain(room.view(), job);
}

/// The first filter, and single taps moved by what it leaves, in turn.
void find_first_and_line_up(const ChainJob& job, HeardTaps& taps, Heard& x, Room& room,
                            std::optional<FilterFit>& fit) {
  const std::vector<double> energies = energies_of(taps, job);
  for (int turn = 0; turn < kMostTurns; ++turn) {
    fit.emplace(job, x.view());
    fit->find_first(x.view());
    if (!line_up(job, *fit, energies, taps, room)) break;
    taps.sum(job, x, room.own);
  }
}

}  // namespace

CurveFinding find_curve(const ChainJob& job, HeardTaps& taps, LagSearch lags) {
  CurveFinding finding;
  const std::vector<std::ptrdiff_t> given = finding.lags = lags_of(taps);
  constexpr std::size_t kPhases = 4;
  const auto tell = [&](std::size_t done) { job.tell("curve", done, kPhases); };
  tell(0);
  Room room(job.mix);
  auto x = Heard::uninitialised(job.mix.rows(), job.mix.columns());
  taps.sum(job, x, room.own);
  finding.why_not = cannot_look(job, x.view());
  if (!finding.why_not.empty()) return finding;

  const double left_given = left_under_engine_gain(x.view(), job);
  finding.left_before = left_given;
  std::optional<FilterFit> fit;
  if (lags == LagSearch::kKeep) {
    fit.emplace(job, x.view());
    fit->find_first(x.view());
  } else {
    finding.left_before = std::min(left_given, left_shifted(job, x.view(), left_given, room.own));
    line_up_all(job, left_given, taps, x, room);
    find_first_and_line_up(job, taps, x, room, fit);
  }
  tell(1);
  fit->refine(x.view());
  tell(2);

  const double left_lined = left_under_engine_gain(x.view(), job);
  finding.left_before = std::min(finding.left_before, left_lined);
  finding.cross_validation = fit->cross_validate(x.view());
  finding.model = fit->model();
  finding.deviation = fit->deviation();
  finding.curves = curves_of(*fit);
  finding.hz = fit->basis().frequencies();
  finding.fir = fit->fir();
  tell(3);
  const GainCurve gain(fit->heard(), kEngineGain, job);
  take_rest(fit->heard(), gain, job, room.rest);
  finding.left_after = energy_db(energy_of(room.rest.view(), job) / energy_of_mix(job));
  take_votes(job, *fit, gain, taps, room, finding);
  finding.why_not = objection(finding);
  finding.used = finding.why_not.empty();
  const bool lined_up = finding.used || left_lined < left_given - kLiningUpHelps;
  if (!lined_up) set_lags(given, taps);
  finding.left = finding.used ? finding.left_after : lined_up ? left_lined : left_given;
  finding.lags = lags_of(taps);
  tell(4);
  return finding;
}

bool is_voted_down(const CurveFinding& finding) {
  return !finding.used && finding.left_before - finding.left_after >= kLeastFall &&
         finding.cross_validation >= kLeastValidated && finding.against > kMostAgainst;
}

}  // namespace verdel::internal
