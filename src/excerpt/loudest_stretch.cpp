#include "excerpt/loudest_stretch.hpp"

#include <cassert>
#include <limits>
#include <vector>

#include "excerpt/onset_curve.hpp"
#include "signal/moving_average.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kSamplesPerCheck = 65536;

}  // namespace

std::size_t loudest_stretch(AudioView mix, std::size_t length, std::size_t smoothing,
                            const StopToken& stop) {
  assert(length > 0 && length < mix.columns());
  // Only the last `length` sums from the track's beginning are ever needed: the sum up to sample i
  // stands at i % length, where the sum up to i + length replaces it after the two were compared.
  std::vector<double> cumulative(length);
  double total = 0.0;
  double highest = -std::numeric_limits<double>::infinity();
  std::size_t best_start = 0;
  // The average's division is left out: it moves no maximum.
  for_each_window_sum(
      mix.columns(), smoothing,
      [mix](std::size_t i) {
        const double sample = mono_at(mix, i);
        return sample * sample;
      },
      [&](std::size_t i, double energy) {
        if (i % kSamplesPerCheck == 0) stop.check();
        total += energy;
        double& slot = cumulative[i % length];
        if (i + 1 >= length && total - slot > highest) {
          highest = total - slot;
          best_start = i + 1 - length;
        }
        slot = total;
      });
  return best_start;
}

}  // namespace verdel::internal
