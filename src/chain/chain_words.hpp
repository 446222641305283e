#pragma once

#include <string>
#include <vector>

#include "chain/hear_chain.hpp"

/// What was found, in words that an engineer understands; all names are those of the taps.
namespace verdel::internal {

/// What became of the curve: what it takes off what is left, or why it is not used.
std::string curve_words(const CurveFinding& curve, const std::vector<std::string>& taps);

/// How the taps voted on it.
std::string vote_words(const CurveFinding& curve, const std::vector<std::string>& taps);

/// What one tap went through on its own: "an EQ of its own", "a room of about 0.8 s".
std::string tap_filter_kind(const TapFilter& filter);

/// The lines of the whole finding: of the curve, of single taps where they have something of their
/// own, of the gains if they were looked for.
std::vector<std::string> chain_words(const ChainFinding& finding, const ChainWishes& wishes,
                                     const std::vector<std::string>& taps);

}  // namespace verdel::internal
