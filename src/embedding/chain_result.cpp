#include "embedding/chain_result.hpp"

#include "chain/chain_figures.hpp"
#include "chain/chain_words.hpp"

namespace verdel::internal {
namespace {

FoundEqualiser found(EqualiserFigures figures) {
  FoundEqualiser equaliser{.hz = std::move(figures.hz), .curves = {}};
  for (ResponseFigures& response : figures.responses) {
    equaliser.curves.push_back({.name = std::move(response.name),
                                .db = std::move(response.db),
                                .phase = std::move(response.phase),
                                .uncertainty_db = std::move(response.uncertainty_db)});
  }
  return equaliser;
}

FoundGain found(const FineGain& gain, int sr) {
  GainFigures figures = gain_figures(gain, sr);
  return {.kind = std::string(kind_of(gain)),
          .channels = std::move(figures.channels),
          .hz = std::move(figures.hz),
          .seconds_per_point = figures.seconds_per_point,
          .db = std::move(figures.db)};
}

FoundTapFilter found(const TapFilter& filter, const std::vector<std::string>& taps) {
  return {.name = taps[filter.tap],
          .kind = std::string(kind_of(filter)),
          .cross_validation_db = filter.cross_validation,
          .fall_db = filter.fall,
          .equaliser = found(equaliser_figures(filter)),
          .seconds = filter.seconds,
          .decay_step = filter.is_effect ? kDecayStepSeconds : 0.0,
          .decay_db = filter.decay_db};
}

}  // namespace

ChainResult chain_result(const ChainFinding& finding, const std::vector<std::string>& taps,
                         int sr) {
  const CurveFinding& curve = finding.curve;
  ChainResult result{.sentences = chain_words(finding, {}, taps),
                     .curve_used = curve.used,
                     .model = std::string(name_of(curve.model)),
                     .curve = found(equaliser_figures(curve)),
                     .left_before_db = curve.left_before,
                     .left_after_db = curve.left_after,
                     .gains_left_before_db = finding.gains.left_before,
                     .gains_left_after_db = finding.gains.left_after,
                     .cross_validation_db = curve.cross_validation,
                     .against = curve.against,
                     .votes = {},
                     .tap_filters = {},
                     .gains = {}};
  for (const CurveVote& vote : curve.votes) result.votes.push_back(vote.vote);
  for (const TapFilter& filter : finding.tap_filters.filters) {
    result.tap_filters.push_back(found(filter, taps));
  }
  for (const FineGain& gain : finding.gains.used) result.gains.push_back(found(gain, sr));
  return result;
}

}  // namespace verdel::internal
