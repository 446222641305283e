#include "chain/hear_chain.hpp"

#include <algorithm>

#include "chain/heard_taps.hpp"
#include "chain/passages.hpp"

namespace verdel::internal {

namespace {

const ChainFir* master_of(const CurveFinding& curve) {
  return curve.used ? &curve.fir : nullptr;
}

/// A state of the search: how each tap is heard, and the curve behind all of them.
struct Hearing {
  std::vector<TapPath> paths;
  CurveFinding curve;
  TapFiltersFinding filters;
};

/// Looks for filters of single taps, and for the curve again behind them, in turn.
class SingleTaps {
 public:
  SingleTaps(const ChainJob& job, HeardTaps& taps) : told_(job), job_(job), taps_(taps) {
    job_.progress = {};
  }

  /// What leaves least under the engine's gain is kept; with `gains`, under those that will be
  /// found: a gain of one channel's own passes for a room.
  Hearing search(CurveFinding curve, bool gains) {
    const Hearing given{taps_.paths, curve, {}};
    Hearing found = descend(std::move(curve));
    if (found.filters.filters.empty() || !gains) return found;
    return left_of(found) < left_of(given) ? found : given;
  }

 private:
  double left_of(const Hearing& hearing) {
    taps_.paths = hearing.paths;
    Passages::Cut cut;
    {
      const Passages passages(job_, taps_);
      auto heard = passages.room(), room = passages.room();
      passages.hear_all(master_of(hearing.curve), heard, room);
      cut = passages.some_judged(heard);
    }
    ChainJob judged = job_;
    judged.mix = cut.mix.view();
    return left_behind_gains(judged, std::move(cut.audio));
  }

  Hearing descend(CurveFinding curve) {
    Hearing now{taps_.paths, std::move(curve), {}};
    Hearing best = now;
    for (std::size_t turn = 0; turn < kMostTurns; ++turn) {
      told_.tell("tap filters", turn, kMostTurns);
      auto next = one_turn(now);
      if (!next) break;
      now = std::move(*next);
      if (now.curve.left < best.curve.left) best = now;
    }
    told_.tell("tap filters", kMostTurns, kMostTurns);
    return best;
  }

  static constexpr std::size_t kMostTurns = 8;

  /// Whether a curve that is not used may be a master's that a tap of its own hides. Where there is
  /// none, one beats a plain factor by 0.1 dB on unseen passages.
  static bool may_be_hidden(const CurveFinding& curve) {
    constexpr double kHintValidated = 0.3, kHintFall = 0.5;  // dB
    return !curve.used && curve.cross_validation >= kHintValidated &&
           curve.left_before - curve.left_after >= kHintFall;
  }

  /// More filters, and the curve again; nothing if none is found. Where there is a curve they are
  /// those of one tap: what would be the next tap's is often the master's, which only shows when
  /// the first is out of its way.
  std::optional<Hearing> one_turn(const Hearing& from) {
    const CurveFinding& curve = from.curve;
    if (curve.used) return again(look(from, &curve.fir, TapSearch::kOneTap));
    if (!may_be_hidden(curve)) return again(look(from, nullptr, TapSearch::kAll));
    auto plain = again(look(from, nullptr, TapSearch::kOneTap));
    if (curve.against <= kMostAgainst) return plain;
    // Either one tap's equaliser passes for the master's, or one tap dissents from the master's.
    auto behind = again(look(from, &curve.fir, TapSearch::kOneTap));
    if (!plain || !behind) return plain ? std::move(plain) : std::move(behind);
    return behind->curve.left_after < plain->curve.left_after ? std::move(behind)
                                                              : std::move(plain);
  }

  std::optional<Hearing> look(const Hearing& from, const ChainFir* master, TapSearch search) {
    Hearing next = from;
    taps_.paths = from.paths;
    const bool found = find_tap_filters(job_, taps_, master, search, next.filters);
    next.paths = taps_.paths;
    return found ? std::optional(std::move(next)) : std::nullopt;
  }

  /// Where a tap dissented, it may have kept the others from being lined up.
  std::optional<Hearing> again(std::optional<Hearing> from) {
    if (!from) return from;
    const auto lags = may_be_hidden(from->curve) ? LagSearch::kSeek : LagSearch::kKeep;
    taps_.paths = from->paths;
    from->curve = find_curve(job_, taps_, lags);
    from->paths = taps_.paths;
    return from;
  }

  const ChainJob& told_;
  ChainJob job_;  // without progress of its own
  HeardTaps& taps_;
};

}  // namespace

ChainFinding hear_chain(const ChainJob& job, StemMap& taps, const ChainWishes& wishes) {
  ChainFinding finding;
  HeardTaps heard(taps);
  finding.curve = find_curve(job, heard);
  const bool could_look = !finding.curve.hz.empty();
  if (wishes.tap_filters && could_look) {
    Hearing found = SingleTaps(job, heard).search(std::move(finding.curve), wishes.gains);
    heard.paths = std::move(found.paths);
    finding.curve = std::move(found.curve);
    finding.tap_filters = std::move(found.filters);
  }
  finding.lined_up =
      std::ranges::any_of(finding.curve.lags, [](std::ptrdiff_t lag) { return lag != 0; });
  heard.hand_out(master_of(finding.curve), job, taps);
  if (wishes.gains && could_look) finding.gains = find_gains(job, taps);
  return finding;
}

}  // namespace verdel::internal
