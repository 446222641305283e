#include "chain/heard_taps.hpp"

#include <algorithm>
#include <array>

#include "alignment/tap_alignment.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kStretch = 4096;  // samples added up at a time

/// The part of `row`, moved by `lag`, that lies in the stretch from `first` on, and its place
/// there.
struct MovedPart {
  std::span<const float> samples;
  std::size_t at = 0;
};

MovedPart moved_part(std::span<const float> row, std::ptrdiff_t lag, std::size_t first,
                     std::size_t count) {
  const auto begin = static_cast<std::ptrdiff_t>(first) - lag;
  const auto size = static_cast<std::ptrdiff_t>(row.size());
  const auto from = std::clamp<std::ptrdiff_t>(begin, 0, size);
  const auto to = std::clamp(begin + static_cast<std::ptrdiff_t>(count), from, size);
  return {row.subspan(static_cast<std::size_t>(from), static_cast<std::size_t>(to - from)),
          static_cast<std::size_t>(std::max<std::ptrdiff_t>(from - begin, 0))};
}

}  // namespace

std::optional<ChainFir> HeardTaps::way(std::size_t tap, const ChainFir* master) const {
  const auto& own = paths[tap].own;
  if (own) return master == nullptr ? own : in_a_row(*own, *master);
  return master == nullptr ? std::nullopt : std::optional(*master);
}

void HeardTaps::hear(std::size_t tap, const ChainFir* master, const ChainJob& job,
                     Heard& into) const {
  if (const auto fir = way(tap, master)) {
    play_to_measure(given(tap), paths[tap].lag, *fir, job, into);
    return;
  }
  for (std::size_t c = 0; c < into.rows(); ++c) {
    const auto row = into.row(c);
    std::ranges::fill(row, 0.0F);
    const auto part = moved_part(given(tap).row(c), paths[tap].lag, 0, row.size());
    std::ranges::copy(part.samples, row.data() + part.at);
  }
}

void HeardTaps::sum(const ChainJob& job, Heard& into, Heard& room) const {
  run_indexed(job.pool, into.rows(), [&](std::size_t c) {
    const auto row = into.row(c);
    std::array<double, kStretch> sums;
    for (std::size_t first = 0; first < row.size(); first += kStretch) {
      job.stop.check();
      const std::size_t count = std::min(kStretch, row.size() - first);
      sums.fill(0.0);
      for (std::size_t tap = 0; tap < size(); ++tap) {
        if (paths[tap].own) continue;
        const auto part = moved_part(given(tap).row(c), paths[tap].lag, first, count);
        for (std::size_t i = 0; i < part.samples.size(); ++i) {
          sums[part.at + i] += static_cast<double>(part.samples[i]);
        }
      }
      std::transform(sums.begin(), sums.begin() + static_cast<std::ptrdiff_t>(count),
                     row.data() + first, [](double sum) { return static_cast<float>(sum); });
    }
  });
  for (std::size_t tap = 0; tap < size(); ++tap) {
    if (!paths[tap].own) continue;
    hear(tap, nullptr, job, room);
    for (std::size_t i = 0; i < into.size(); ++i) into.data()[i] += room.data()[i];
  }
}

void HeardTaps::hand_out(const ChainFir* master, const ChainJob& job, StemMap& taps) const {
  StemArray room;
  for (std::size_t tap = 0; tap < size(); ++tap) {
    StemArray& audio = taps[tap].audio;
    if (const auto fir = way(tap, master)) {
      if (room.empty()) room = StemArray::uninitialised(audio.rows(), audio.columns());
      play(audio.view(), paths[tap].lag, *fir, job, room);
      std::swap(audio, room);
    } else if (paths[tap].lag != 0) {
      audio = align_tap(audio.view(), paths[tap].lag);
    }
  }
}

}  // namespace verdel::internal
