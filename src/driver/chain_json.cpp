#include "driver/chain_json.hpp"

#include <fmt/format.h>

#include "chain/chain_figures.hpp"
#include "chain/chain_words.hpp"
#include "driver/output_lines.hpp"

namespace verdel::internal {
namespace {

template <class Values, class Text>
std::string array_of(const Values& values, Text text) {
  std::string joined;
  for (const auto& value : values) {
    joined += joined.empty() ? "" : ", ";
    joined += text(value);
  }
  return "[" + joined + "]";
}

std::string four_digits(const std::vector<double>& values) {
  return array_of(values, [](double value) { return fmt::format("{:.4g}", value); });
}

std::string two_decimals(const std::vector<double>& values) {
  return array_of(values, [](double value) { return fmt::format("{:.2f}", value); });
}

/// The fields of an equaliser.
std::string equaliser_json(const EqualiserFigures& equaliser) {
  return fmt::format(R"("hz": {}, "curves": {})", four_digits(equaliser.hz),
                     array_of(equaliser.responses, [](const ResponseFigures& response) {
                       return fmt::format(
                           R"({{"name": {}, "db": {}, "phase": {}, "uncertainty_db": {}}})",
                           json_string(response.name), four_digits(response.db),
                           four_digits(response.phase), four_digits(response.uncertainty_db));
                     }));
}

std::string curve_json(const CurveFinding& finding, const std::vector<std::string>& taps) {
  return fmt::format(
      R"({{"used": {}, "why_not": {}, "model": {}, "left_before_db": {:.2f}, )"
      R"("left_after_db": {:.2f}, "cross_validation_db": {:.2f}, "against": {:.3f}, {}}})",
      finding.used, json_string(finding.used ? "" : curve_words(finding, taps)),
      json_string(name_of(finding.model)), finding.left_before, finding.left_after,
      finding.cross_validation, finding.against, equaliser_json(equaliser_figures(finding)));
}

std::string tap_filter_json(const TapFilter& filter, const std::vector<std::string>& taps) {
  const std::string found =
      filter.is_effect
          ? fmt::format(R"("seconds": {:.2f}, "decay_step": {:g}, "decay_db": {})", filter.seconds,
                        kDecayStepSeconds, two_decimals(filter.decay_db))
          : equaliser_json(equaliser_figures(filter));
  return fmt::format(
      R"({{"name": {}, "kind": "{}", "cross_validation_db": {:.2f}, "fall_db": {:.2f}, {}}})",
      json_string(taps[filter.tap]), kind_of(filter), filter.cross_validation, filter.fall, found);
}

std::string gain_json(const FineGain& gain, int sr) {
  const GainFigures figures = gain_figures(gain, sr);
  const auto bands = [](const auto& channel) { return array_of(channel, two_decimals); };
  const bool apart = !figures.channels.empty();
  return fmt::format(
      R"({{"kind": "{}", {}"hz": {}, "stiffness": {:g}, "seconds_per_point": {:.6f}, "db": {}}})",
      kind_of(gain),
      apart ? fmt::format(R"("channels": {}, )", array_of(figures.channels, json_string)) : "",
      array_of(figures.hz, [](double hz) { return fmt::format("{:g}", hz); }), gain.stiffness,
      figures.seconds_per_point, apart ? array_of(figures.db, bands) : bands(figures.db.front()));
}

}  // namespace

std::string chain_json(const ChainFinding& finding, const std::vector<std::string>& taps, int sr) {
  std::vector<std::size_t> order(taps.size());
  for (std::size_t i = 0; i < order.size(); ++i) order[i] = i;
  const auto tap_json = [&](std::size_t i) {
    const auto& votes = finding.curve.votes;
    const bool voted = i < votes.size() && votes[i].vote;
    return fmt::format(R"({{"name": {}, "lag": {}, "vote": {}}})", json_string(taps[i]),
                       finding.curve.lags[i],
                       voted ? fmt::format("{:.3f}", *votes[i].vote) : "null");
  };
  return fmt::format(
      "{{\"v\": 1, \"sample_rate\": {}, \"curve\": {},\n\"tap_filters\": {},\n\"gains\": {},\n"
      "\"taps\": {}}}\n",
      sr, curve_json(finding.curve, taps),
      array_of(finding.tap_filters.filters,
               [&](const TapFilter& filter) { return tap_filter_json(filter, taps); }),
      array_of(finding.gains.used, [&](const FineGain& gain) { return gain_json(gain, sr); }),
      array_of(order, tap_json));
}

}  // namespace verdel::internal
