#include "chain/chain_words.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "support/number_text.hpp"

namespace verdel::internal {
namespace {

// A tap is named only where the curve changes this share of what it changes in all taps: a vote on
// less is a vote on noise.
constexpr double kWorthNaming = 0.01;
constexpr double kByFar = 4.0;  // the energy of one tap's change over that of any other
constexpr std::size_t kMostNames = 4;

bool is_against(const CurveVote& vote) {
  return vote.vote && *vote.vote < kVoteAgainst;
}

/// The taps of a vote that did not go through the curve, the most changed first.
std::vector<std::size_t> dissenters(const CurveFinding& curve) {
  double total = 0.0;
  for (const CurveVote& vote : curve.votes) total += vote.change;
  std::vector<std::size_t> found;
  for (std::size_t i = 0; i < curve.votes.size(); ++i) {
    const CurveVote& vote = curve.votes[i];
    if (is_against(vote) && vote.change >= kWorthNaming * total) found.push_back(i);
  }
  std::ranges::stable_sort(found, std::greater<>(),
                           [&](std::size_t i) { return curve.votes[i].change; });
  return found;
}

std::string enumeration(const std::vector<std::size_t>& chosen,
                        const std::vector<std::string>& taps) {
  const std::size_t shown = chosen.size() > kMostNames ? kMostNames - 1 : chosen.size();
  std::string text;
  for (std::size_t i = 0; i < shown; ++i) {
    const bool is_last = i > 0 && i + 1 == chosen.size();
    text += i == 0 ? "" : is_last ? " and " : ", ";
    text += taps[chosen[i]];
  }
  if (shown < chosen.size()) text += fmt::format(" and {} more", chosen.size() - shown);
  return text;
}

/// The tap that the curve was made for, if it is one: its change is by far the largest, and taking
/// it back would leave more than there was before.
const std::string* suspect(const CurveFinding& curve, const std::vector<std::string>& taps) {
  const auto most = std::ranges::max_element(curve.votes, {}, &CurveVote::change);
  if (most == curve.votes.end() || !most->vote || *most->vote <= 1.0) return nullptr;
  for (const CurveVote& other : curve.votes) {
    if (&other != &*most && kByFar * other.change > most->change) return nullptr;
  }
  return &taps[static_cast<std::size_t>(most - curve.votes.begin())];
}

std::string dissent_words(const CurveFinding& curve, const std::vector<std::string>& taps) {
  std::string text =
      fmt::format("an EQ fits, but {} did not go through it", enumeration(dissenters(curve), taps));
  if (const std::string* tap = suspect(curve, taps)) {
    text += fmt::format(": is {} bounced without its own effects?", *tap);
  }
  return text;
}

/// What moving all taps alike says of the chain; empty where they were not.
std::string delay_words(const CurveFinding& curve) {
  const std::ptrdiff_t lag = curve.lags.empty() ? 0 : curve.lags.front();
  if (lag == 0 || std::ranges::any_of(curve.lags, [&](auto other) { return other != lag; })) {
    return {};
  }
  return (lag > 0 ? "the chain delays by " : "all taps are late by ") +
         counted(lag < 0 ? -lag : lag, "sample");
}

std::string tap_filter_words(const TapFilter& filter, const std::vector<std::string>& taps) {
  if (filter.is_effect) {
    return fmt::format("{}: {} stands in the master that the tap does not have", taps[filter.tap],
                       tap_filter_kind(filter));
  }
  return fmt::format("{}: went through {} (takes {:.1f} dB off on passages it has not seen)",
                     taps[filter.tap], tap_filter_kind(filter), filter.cross_validation);
}

std::string gain_words(const GainsFinding& gains) {
  if (gains.used.empty()) return "nothing finer than the engine's own";
  std::string kinds;
  for (const FineGain& gain : gains.used) {
    kinds += kinds.empty() ? "" : ", then ";
    kinds += gain.in_bands ? fmt::format("{} bands of an octave", gain.centres.size())
                           : "one for all frequencies";
    if (gain.channels_apart()) kinds += " (left and right apart)";
  }
  return fmt::format("{}, takes {:.1f} dB off what is left ({:.1f} to {:.1f} dB)", kinds,
                     gains.left_before - gains.left_after, gains.left_before, gains.left_after);
}

}  // namespace

std::string curve_words(const CurveFinding& curve, const std::vector<std::string>& taps) {
  if (curve.used) {
    return fmt::format("{}, takes {:.1f} dB off what is left ({:.1f} to {:.1f} dB)",
                       name_of(curve.model), curve.left_before - curve.left_after,
                       curve.left_before, curve.left_after);
  }
  const bool can_name = is_voted_down(curve) && !dissenters(curve).empty();
  return can_name ? dissent_words(curve, taps) : curve.why_not;
}

std::string vote_words(const CurveFinding& curve, const std::vector<std::string>& taps) {
  double least = 0.0, most = 0.0;
  std::size_t voters = 0;
  for (const CurveVote& vote : curve.votes) {
    if (!vote.vote || is_against(vote)) continue;
    least = voters == 0 ? *vote.vote : std::min(least, *vote.vote);
    most = voters == 0 ? *vote.vote : std::max(most, *vote.vote);
    ++voters;
  }
  std::string text =
      fmt::format("{} of {} taps vote for it ({:.2f} to {:.2f}; 1 is a tap that went through it)",
                  voters, curve.votes.size(), least, most);
  const auto against = dissenters(curve);
  if (!against.empty()) text += fmt::format("; {} did not", enumeration(against, taps));
  return text;
}

std::string tap_filter_kind(const TapFilter& filter) {
  if (!filter.is_effect) return "an EQ of its own";
  if (!(filter.seconds > 0.0)) return "an effect";
  return fmt::format("a room of about {:.{}f} s", filter.seconds, filter.seconds < 0.1 ? 2 : 1);
}

std::vector<std::string> chain_words(const ChainFinding& finding, const ChainWishes& wishes,
                                     const std::vector<std::string>& taps) {
  const CurveFinding& curve = finding.curve;
  std::vector<std::string> lines;
  std::string label;
  const auto say = [&](const std::string& text) {
    if (text.empty()) return;
    lines.push_back(fmt::format("{:<7}{}", label, text));
    label.clear();
  };
  label = "curve:";
  say(curve_words(curve, taps));
  if (curve.used) say(vote_words(curve, taps));
  say(delay_words(curve));
  label = "taps:";
  for (const TapFilter& filter : finding.tap_filters.filters) {
    say(tap_filter_words(filter, taps));
  }
  label = "gain:";
  if (wishes.gains && !curve.hz.empty()) say(gain_words(finding.gains));
  return lines;
}

}  // namespace verdel::internal
