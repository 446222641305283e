#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "chain/chain_job.hpp"

namespace verdel::internal {

/// A gain's measurement window and its smoothing.
struct GainTimes {
  double window_s = 0.0, smooth_s = 0.0;
};

/// While a filter is sought the gain is quick: a slow one leaves the shape of every kick in the
/// bass, which the filter would then imitate.
inline constexpr GainTimes kFittingGain = {0.015, 0.015};
/// The engine's own, under which is judged.
inline constexpr GainTimes kEngineGain = {0.03, 0.12};

/// A gain curve known every so many samples, with straight lines between: it has been averaged over
/// forty times that, so that nothing is lost, and a long song's curve stays small.
class GainCurve {
 public:
  /// The least-squares gain of the mix over `heard`, channel by channel, held to 0.02 .. 50 and
  /// averaged; 1 where nothing is heard. Windows reflect at the ends.
  GainCurve(HeardView heard, const GainTimes& times, const ChainJob& job);
  GainCurve(AudioView heard, const GainTimes& times, const ChainJob& job);

  double at(std::size_t channel, std::size_t frame) const {
    // A cell's value stands in its middle.
    const double place = (static_cast<double>(frame) + 0.5) * per_cell_ - 0.5;
    const double inside = std::clamp(place, 0.0, last_);
    const auto cell = static_cast<std::size_t>(inside);
    const double* const row = values_.row(channel).data();
    const double toward = inside - static_cast<double>(cell);
    return toward == 0.0 ? row[cell] : row[cell] + toward * (row[cell + 1] - row[cell]);
  }
  /// The gain of the frames from `first` on.
  void read(std::size_t channel, std::size_t first, std::span<float> into) const;

 private:
  template <class View>
  void measure(View heard, const GainTimes& times, const ChainJob& job);

  double per_cell_ = 1.0, last_ = 0.0;
  std::vector<float> weights_;  // of the next cell's value, [samples of a cell]
  Array2D<double> values_;      // [channels][cells]
};

/// Calls work(first, gains) for stretches of a part, in order.
template <class Work>
void for_each_stretch(const GainCurve& gain, const ChannelPart& part, const StopToken& stop,
                      Work work) {
  constexpr std::size_t kStretch = 4096;
  std::array<float, kStretch> room;
  for (std::size_t first = part.span.first; first < part.span.stop; first += kStretch) {
    stop.check();
    const auto gains = std::span(room).first(std::min(kStretch, part.span.stop - first));
    gain.read(part.channel, first, gains);
    work(first, std::span<const float>(gains));
  }
}

/// The same for a whole channel.
template <class Work>
void for_each_stretch(const GainCurve& gain, std::size_t channel, std::size_t frames,
                      const StopToken& stop, Work work) {
  for_each_stretch(gain, {channel, {0, frames}}, stop, work);
}

/// Energy of the mix minus gain times `heard` over that of the mix, in dB, under the engine's gain.
double left_under_engine_gain(HeardView heard, const ChainJob& job);
double left_under_engine_gain(AudioView heard, const ChainJob& job);

/// rest = mix - gain * heard, into an array of their shape.
void take_rest(HeardView heard, const GainCurve& gain, const ChainJob& job, Heard& rest);
void take_rest(AudioView heard, const GainCurve& gain, const ChainJob& job, AudioArray& rest);

double energy_of(HeardView audio);
double energy_of(AudioView audio);
/// Of audio of the job's shape, spread over its pool.
double energy_of(HeardView audio, const ChainJob& job);
double energy_of_mix(const ChainJob& job);
double energy_db(double ratio);

}  // namespace verdel::internal
