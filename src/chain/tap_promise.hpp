#pragma once

#include <vector>

#include "chain/chain_gain.hpp"
#include "chain/chain_job.hpp"
#include "chain/heard_taps.hpp"

namespace verdel::internal {

/// How much a filter of one tap may take off what is left, in dB, to a first glance.
struct TapPromise {
  double equaliser = 0.0;
  double effect = 0.0;
};

/// Looks at every tap: how far the rest of the mix follows it in each frequency, at once (an
/// equaliser) and up to 1.2 s later (an effect), in short spectra over some forty seconds, evenly
/// spread. By tap. `rest` is mix - gain * all that is heard.
std::vector<TapPromise> glance_at_taps(const ChainJob& job, const HeardTaps& taps,
                                       const GainCurve& gain, HeardView rest);

}  // namespace verdel::internal
