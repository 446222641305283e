#pragma once

#include <span>
#include <vector>

#include "chain/chain_gain.hpp"
#include "chain/passages.hpp"

namespace verdel::internal {

/// How much a filter of one tap may take off what is left, in dB, to a first glance.
struct TapPromise {
  double equaliser = 0.0;
  double effect = 0.0;
};

/// Looks at the chosen taps: how far the rest of the mix follows each in each frequency, at once
/// (an equaliser) and up to 1.2 s later (an effect), in short spectra over half a minute, evenly
/// spread. In the order of `chosen`. `rest` is mix - gain * all that is heard.
std::vector<TapPromise> glance_at_taps(const Passages& passages,
                                       std::span<const std::size_t> chosen, const GainCurve& gain,
                                       HeardView rest);

}  // namespace verdel::internal
