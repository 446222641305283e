#include "handover/integer_stems.hpp"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>
#include <numeric>
#include <tuple>

namespace verdel::internal {
namespace {

// Added to and taken from a double, this leaves the nearest whole number, of two as near the even
// one, up to 2^51; unlike the library's functions, loops over it become vectors everywhere.
constexpr double kRounder = 0x1.8p52;
// No stem is that loud; beyond it integers of 32 bits end.
constexpr double kMostSteps = 0x1p30;

double nearest(double value) {
  return (value + kRounder) - kRounder;
}

/// Rounds one stem for itself, adds it to the sums, and returns whether all of it can be rounded.
bool round_stem(std::span<const double> stem, double steps, std::int32_t* rounded, double* sum,
                double* rounded_sum) {
  bool fits = true;
  for (std::size_t i = 0; i < stem.size(); ++i) {
    const double value = stem[i] * steps;
    const bool is_small = std::abs(value) < kMostSteps;
    const double whole = nearest(is_small ? value : 0.0);
    fits = fits & is_small;
    rounded[i] = static_cast<std::int32_t>(whole);
    sum[i] += value;
    rounded_sum[i] += whole;
  }
  return fits;
}

/// Gives steps to the stems one by one, each to the one that then departs least from its value.
class Distribution {
 public:
  explicit Distribution(const RoundingBlock& block) : block_(block), want_(block.stems.size()) {}

  void run(std::size_t frame, std::int32_t steps, std::span<StemRounding> tallies) {
    const std::int32_t sign = steps > 0 ? 1 : -1;
    const std::size_t stems = want_.size();
    for (std::size_t s = 0; s < stems; ++s) {
      const double value = block_.stems[s][frame] * block_.grid.steps();
      // A silent stem stands behind those that still stand at their own rounding.
      want_[s] = value == 0.0 ? -1.0 : sign * (value - block_.rounded[s][frame]);
    }
    for (std::int32_t left = steps; left != 0; left -= sign) {
      const auto most = std::ranges::max_element(want_);
      *most -= 1.0;
      block_.rounded[static_cast<std::size_t>(most - want_.begin())][frame] += sign;
    }
    for (std::size_t s = 0; s < stems; ++s) {
      const double own = nearest(block_.stems[s][frame] * block_.grid.steps());
      const std::int32_t departure =
          std::abs(block_.rounded[s][frame] - static_cast<std::int32_t>(own));
      tallies[s].largest_departure = std::max(tallies[s].largest_departure, departure);
      tallies[s].squares += static_cast<double>(departure * departure);
    }
  }

 private:
  const RoundingBlock& block_;
  std::vector<double> want_;  ///< steps from the integer to the value, on the side that is wanted
};

/// Stems by their energy in the block, the loudest first.
std::vector<std::size_t> loudest_first(const std::vector<std::span<const double>>& stems) {
  std::vector<double> energy(stems.size());
  for (std::size_t s = 0; s < stems.size(); ++s) {
    for (const double x : stems[s]) energy[s] += x * x;
  }
  std::vector<std::size_t> order(stems.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::ranges::stable_sort(order, std::greater(), [&](std::size_t s) { return energy[s]; });
  return order;
}

/// The first sample of any stem that cannot be rounded at all.
MissedSample unfit_sample(const RoundingBlock& block) {
  const double most = kMostSteps / block.grid.steps();
  std::size_t first = block.target.size();
  for (std::size_t s = 0; s < block.stems.size(); ++s) {
    const auto row = block.stems[s].first(first);
    const auto unfit = std::ranges::find_if(row, [&](double x) { return !(std::abs(x) < most); });
    first = static_cast<std::size_t>(unfit - row.begin());
  }
  return {block.first + first, std::numeric_limits<double>::infinity()};
}

bool all_fit(const std::vector<std::span<std::int32_t>>& rounded, IntegerGrid grid) {
  std::int32_t low = 0, high = 0;
  for (const auto& row : rounded) {
    for (const std::int32_t x : row) {
      low = std::min(low, x);
      high = std::max(high, x);
    }
  }
  return low >= grid.lowest() && high <= grid.highest();
}

/// Moves what a stem cannot hold at a frame to the others.
void relieve(const RoundingBlock& block, std::size_t stem, std::size_t frame,
             const std::vector<std::size_t>& order, std::span<StemRounding> tallies) {
  std::int32_t& value = block.rounded[stem][frame];
  const std::int32_t kept = std::clamp(value, block.grid.lowest(), block.grid.highest());
  std::int32_t over = value - kept;
  if (over == 0) return;
  value = kept;
  tallies[stem].relieved.add(block.first + frame, block.channel, std::abs(over));
  for (const std::size_t other : order) {
    std::int32_t& taker = block.rounded[other][frame];
    const std::int32_t room = over > 0 ? std::max(block.grid.highest() - taker, 0)
                                       : std::min(block.grid.lowest() - taker, 0);
    const std::int32_t part = over > 0 ? std::min(over, room) : std::max(over, room);
    if (part == 0) continue;
    taker += part;
    over -= part;
    tallies[other].took.add(block.first + frame, block.channel, std::abs(part));
  }
  assert(over == 0);
}

}  // namespace

void SampleCount::add(std::size_t at_frame, std::size_t at_channel, double size) {
  add({.samples = 1, .frame = at_frame, .channel = at_channel, .largest = size});
}

void SampleCount::add(const SampleCount& others) {
  if (others.samples == 0) return;
  if (samples == 0 || std::tie(others.frame, others.channel) < std::tie(frame, channel)) {
    frame = others.frame;
    channel = others.channel;
  }
  samples += others.samples;
  // Written so that what is not a number stays.
  if (!(largest >= others.largest)) largest = others.largest;
}

void MixRounding::add(const MixRounding& others) {
  changed.add(others.changed);
  squares += others.squares;
  beyond.add(others.beyond);
}

void StemRounding::add(const StemRounding& others) {
  largest_departure = std::max(largest_departure, others.largest_departure);
  squares += others.squares;
  relieved.add(others.relieved);
  took.add(others.took);
}

void round_mix(std::span<const double> mix, IntegerGrid grid, std::size_t channel,
               std::size_t first, std::span<std::int32_t> rounded, MixRounding& tally) {
  const double steps = grid.steps();
  for (std::size_t i = 0; i < mix.size(); ++i) {
    const double value = mix[i] * steps;
    if (!(std::abs(value) <= steps)) {
      tally.beyond.add(first + i, channel, std::abs(value));
      rounded[i] = std::isnan(value) ? 0 : value > 0.0 ? grid.highest() : grid.lowest();
      continue;
    }
    const double whole = std::min(nearest(value), steps - 1.0);
    rounded[i] = static_cast<std::int32_t>(whole);
    const double change = whole - value;
    if (change == 0.0) continue;
    tally.changed.add(first + i, channel, std::abs(change));
    tally.squares += change * change;
  }
}

std::optional<MissedSample> round_together(const RoundingBlock& block,
                                           std::span<StemRounding> tallies) {
  const std::size_t frames = block.target.size(), stems = block.stems.size();
  assert(block.rounded.size() == stems && tallies.size() == stems);
  const double steps = block.grid.steps();
  std::vector<double> sum(frames), rounded_sum(frames);
  bool fits = true;
  for (std::size_t s = 0; s < stems; ++s) {
    fits &=
        round_stem(block.stems[s], steps, block.rounded[s].data(), sum.data(), rounded_sum.data());
  }
  if (!fits) return unfit_sample(block);
  Distribution distribution(block);
  for (std::size_t i = 0; i < frames; ++i) {
    const double target = block.target[i];
    const double missing = target - sum[i];
    if (!(std::abs(missing) <= kMostMissingSteps)) return MissedSample{block.first + i, missing};
    const auto left = static_cast<std::int32_t>(target - rounded_sum[i]);
    if (left != 0) distribution.run(i, left, tallies);
  }
  if (all_fit(block.rounded, block.grid)) return std::nullopt;
  const auto order = loudest_first(block.stems);
  for (std::size_t i = 0; i < frames; ++i) {
    for (std::size_t s = 0; s < stems; ++s) relieve(block, s, i, order, tallies);
  }
  return std::nullopt;
}

}  // namespace verdel::internal
