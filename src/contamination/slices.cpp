#include "contamination/slices.hpp"

#include <algorithm>
#include <bit>

namespace verdel::internal {
namespace {

// Shorter slices spend more on context, longer ones fall out of the processor's cache, and of the
// lengths in between this one transforms fastest. Higher rates have more samples to the same time.
constexpr std::size_t kLongestSlice = std::size_t{5} << 16;
constexpr std::size_t kPlainRate = 50000;  // Hz, up to which that length holds

// The narrowest bands are 2 Hz wide: half a second away their filters still let through -31 dB of
// what the tap does there, which a gain of 50 raises above a loud stem.
constexpr double kContextSeconds = 0.75;

// In shorter clips the ends, where windows reflect, weigh so much that every band is taken at the
// full rate.
constexpr double kFullRateSeconds = 1.5;

// A small part of the envelopes' window of 20 ms, and of the ripple that low notes leave on them.
constexpr std::size_t kEnvelopeCell = 16;
constexpr double kEnvelopeSeconds = 0.02;

// Above this the end of a song is too small a part of it to be worth a slice of that length.
constexpr std::size_t kLongestCircle = std::size_t{1} << 22;

// At rates of some hundred hertz the window itself is shorter than such a cell.
std::size_t envelope_cell(int sr) {
  const auto window = static_cast<std::size_t>(kEnvelopeSeconds * sr);
  return std::bit_floor(std::clamp<std::size_t>(window, 1, kEnvelopeCell));
}

std::size_t round_up(std::size_t value, std::size_t step) {
  return (value + step - 1) / step * step;
}

}  // namespace

std::size_t SlicePlan::core_frames(std::size_t slice) const {
  return std::min(core, frames - core_begin(slice));
}

SlicePlan::Extent SlicePlan::extent(std::size_t slice) const {
  const std::size_t begin = core_begin(slice);
  const std::size_t song_first = begin - std::min(begin, context);
  const std::size_t first = song_first + context - begin;
  return {.first = first,
          .stop = std::min(length, first + frames - song_first),
          .song_first = song_first};
}

SlicePlan plan_slices(std::size_t frames, int sr, std::size_t nfft) {
  const std::size_t circle = std::max(nfft, std::bit_ceil(frames + 1));
  const auto second = static_cast<std::size_t>(sr);
  if (static_cast<double>(frames) < kFullRateSeconds * sr) {
    return {.frames = frames,
            .length = std::min(circle, std::bit_ceil(frames + second)),
            .core = frames,
            .count = 1,
            .full_rate = true};
  }
  const auto context = static_cast<std::size_t>(kContextSeconds * sr);
  if (circle - frames < 2 * context && circle <= kLongestCircle) {
    // A transform runs in a circle. One that leaves next to no silence behind the song lets its
    // end ring into its beginning, so the figures are those of this very circle.
    return {.frames = frames,
            .length = circle,
            .context = (circle - frames) / 2,
            .core = frames,
            .count = 1,
            .cell = envelope_cell(sr)};
  }
  const std::size_t longest = kLongestSlice * std::bit_ceil((second + kPlainRate - 1) / kPlainRate);
  const std::size_t longest_core = (longest - 2 * context) / kEnvelopeCell * kEnvelopeCell;
  const std::size_t count = (frames + longest_core - 1) / longest_core;
  const std::size_t core = round_up((frames + count - 1) / count, kEnvelopeCell);
  return {.frames = frames,
          .length = good_transform_length(core + 2 * context),
          .context = context,
          .core = core,
          .count = count,
          .cell = envelope_cell(sr)};
}

std::size_t good_transform_length(std::size_t least) {
  std::size_t best = std::bit_ceil(std::max<std::size_t>(least, 2));
  for (const std::size_t factor : {10U, 12U, 15U}) {
    std::size_t length = 2 * factor;
    while (length < least) length *= 2;
    best = std::min(best, length);
  }
  return best;
}

}  // namespace verdel::internal
