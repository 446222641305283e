#include "chain/hear_chain.hpp"

#include <algorithm>

namespace verdel::internal {

ChainFinding hear_chain(const ChainJob& job, StemMap& taps, bool gains) {
  ChainFinding finding{.curve = find_curve(job, taps), .gains = {}};
  finding.lined_up =
      std::ranges::any_of(finding.curve.lags, [](std::ptrdiff_t lag) { return lag != 0; });
  const bool could_look = !finding.curve.hz.empty();
  if (gains && could_look) finding.gains = find_gains(job, taps);
  return finding;
}

}  // namespace verdel::internal
