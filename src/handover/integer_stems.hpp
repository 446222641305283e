#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// Integers whose sum is the mix, at every sample. A step is the distance of two neighbouring
/// integers: two to the power of one less than the bits make full scale.
namespace verdel::internal {

/// The integers of some bits.
struct IntegerGrid {
  int bits = 24;  ///< 2 to 24

  double steps() const { return static_cast<double>(std::int32_t{1} << (bits - 1)); }
  std::int32_t lowest() const { return -(std::int32_t{1} << (bits - 1)); }
  std::int32_t highest() const { return (std::int32_t{1} << (bits - 1)) - 1; }
};

/// Samples of one kind in a stem or a mix: how many, the first of them, and the most that there
/// was.
struct SampleCount {
  std::uint64_t samples = 0;
  std::size_t frame = 0, channel = 0;  ///< of the first in time
  double largest = 0.0;                ///< steps

  void add(std::size_t at_frame, std::size_t at_channel, double size);
  void add(const SampleCount& others);
};

/// What rounding does to a mix.
struct MixRounding {
  SampleCount changed;   ///< `largest` is the largest change
  double squares = 0.0;  ///< of the changes, in steps
  /// What no integer of these bits can hold: beyond full scale, or no number. `largest` is the
  /// magnitude.
  SampleCount beyond;

  void add(const MixRounding& others);
};

/// A channel's mix as integers, each the nearest (of two as near, the even one). 1.0, one step
/// above the highest integer, becomes that. `first` is the frame of the first sample. What is
/// beyond is counted and becomes the nearest integer that there is, 0 for what is no number.
void round_mix(std::span<const double> mix, IntegerGrid grid, std::size_t channel,
               std::size_t first, std::span<std::int32_t> rounded, MixRounding& tally);

/// How far rounding together took one stem.
struct StemRounding {
  std::int32_t largest_departure = 0;  ///< steps from rounding the stem for itself
  double squares = 0.0;                ///< of these departures
  SampleCount relieved;                ///< where it would have clipped
  SampleCount took;                    ///< where it took what others could not hold

  void add(const StemRounding& others);
};

/// How many steps the stems may be away from the mix before they are rounded: 0.84 is a sum that
/// misses a mix by -140 dBFS, in steps of 24 bits, half a step the rounding of the mix, and a whole
/// one what is lost of a sample of 1.0.
inline constexpr double kMostMissingSteps = 2.0;

/// One channel of some frames of all stems.
struct RoundingBlock {
  std::size_t channel = 0, first = 0;            ///< the frame in the song of the first column
  std::span<const std::int32_t> target;          ///< [frames] the mix
  std::vector<std::span<const double>> stems;    ///< [stems][frames], full scale at 1.0
  std::vector<std::span<std::int32_t>> rounded;  ///< [stems][frames]; overlap nothing
  IntegerGrid grid = {};
};

/// A sample at which stems cannot be rounded to the mix.
struct MissedSample {
  std::size_t frame = 0;
  /// How much the mix has beyond the sum of the stems; infinite where a stem holds what is no
  /// number or far beyond full scale.
  double steps = 0.0;
};

/// Rounds stems together so that their integers add up to the target. Each stem is rounded to the
/// nearest integer; the steps that are then too few or too many, at most half a step for each stem
/// and kMostMissingSteps, go one by one to the stem whose value lies farthest on that side of its
/// integer. A stem that is silent at a sample takes one only if no other can. So a stem departs
/// from its own rounding by one step at most, or by two where fewer than four stems sound and miss
/// the mix by more than a step.
///
/// A stem that would then exceed the integers keeps the last one, and what is over goes to the stem
/// that is loudest in this block and has room, then to the next. There is always room, since the
/// target is one of the integers.
///
/// `tallies` has one entry for each stem and is added to. Returns the first sample that cannot be
/// rounded, after which `rounded` holds nothing of use.
std::optional<MissedSample> round_together(const RoundingBlock& block,
                                           std::span<StemRounding> tallies);

/// Frames in a block of all who round songs: what is over after clipping goes by the loudness in a
/// block, and the same song has to give the same integers.
inline constexpr std::size_t kRoundingFrames = 16384;

}  // namespace verdel::internal
