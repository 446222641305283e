#include "allocator_phases.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "allocation/c14_constants.hpp"
#include "allocation/interval_rendering.hpp"
#include "allocation/spectral_transform.hpp"
#include "measures.hpp"

namespace verdel::internal {
namespace {

constexpr double kMemorySeconds = 5.0;

/// Frames of the slice that a span is rendered from.
std::size_t slice_frames(std::size_t start, std::size_t stop, std::size_t samples) {
  if (start == 0 && stop == samples) return spectrum_frames(samples);
  const std::size_t first = start / C14_HOP;
  const std::size_t left = first - std::min(first, C14_CONTEXT_BEFORE_HOPS);
  const std::size_t right = (stop + C14_HOP - 1) / C14_HOP + C14_CONTEXT_AFTER_HOPS;
  return spectrum_frames(std::min(samples, right * C14_HOP) - left * C14_HOP);
}

/// How far a thread has come with its present interval.
struct ThreadPlace {
  std::size_t step = 0;
  double last = 0.0;   // seconds; a thread's processor time begins at 0
  bool first = false;  // with its scratch files
  bool begun = false;
};
thread_local ThreadPlace place;

}  // namespace

std::vector<std::size_t> interval_frames(const SampleSpan& range, std::size_t samples, int sr) {
  if (static_cast<double>(range.length()) < std::nearbyint(C14_INTERVAL_MIN_SECONDS * sr)) {
    return {slice_frames(range.first, range.stop, samples)};
  }
  const auto length = static_cast<std::size_t>(std::nearbyint(C14_INTERVAL_SECONDS * sr));
  const std::size_t count = (range.length() + length - 1) / length;
  std::vector<std::size_t> frames;
  for (std::size_t i = 0; i < count; ++i) {
    frames.push_back(slice_frames(range.first + i * range.length() / count,
                                  range.first + (i + 1) * range.length() / count, samples));
  }
  return frames;
}

double PhaseTimes::sum() const {
  return std::reduce(seconds.begin(), seconds.end());
}

void PhaseTimes::scale(double factor) {
  for (double& value : seconds) value *= factor;
}

PhaseWatch::PhaseWatch(std::size_t stems, bool one_thread, std::size_t sets)
    : stems_(stems), one_thread_(one_thread), fresh_sets_(sets), begin_(Moment::now().wall) {}

void PhaseWatch::step(std::size_t done, std::size_t total) {
  const double now = one_thread_ ? thread_seconds() : Moment::now().wall;
  const std::lock_guard lock(mutex_);
  if (!place.begun) place.last = one_thread_ ? 0.0 : begin_;
  place.begun = true;
  const double spent = now - place.last;
  place.last = now;
  // No interval begins when all is done: this is the channel's own last report, and what begins
  // from now on belongs to another channel.
  if (place.step == 0 && done == total) {
    begin_ = now;
    return;
  }
  if (place.step == 0) {
    place.first = fresh_sets_ > 0;
    fresh_sets_ -= place.first;
  }
  PhaseTimes& times = place.first ? first_ : repeated_;
  times.seconds[place.step == 0 ? 0 : 1 + (place.step - 1) / stems_] += spent;
  if (++place.step <= C14_STEPS_PER_STEM * stems_) return;
  ++times.intervals;
  place.step = 0;
}

double working_bytes_per_cell(const Model& model, const Machine& machine, int sr) {
  const std::size_t samples =
      std::min(model.mix.columns(), static_cast<std::size_t>(std::lround(kMemorySeconds * sr)));
  ChannelJob job{.taps = {},
                 .gain = model.gain.row(0).first(samples),
                 .mix = model.mix.row(0).first(samples),
                 .sr = sr,
                 .start = 0,
                 .stop = samples,
                 .progress = {}};
  for (const auto& tap : model.taps) job.taps.push_back(tap.audio.row(0).first(samples));
  release_freed_memory();
  MemoryWatch watch;
  const auto before = static_cast<double>(watch.take_peak());
  std::size_t result = 0;
  render_channel_intervals({job}, machine, {}, [&](auto, auto, RowsView<const double> stems) {
    result = stems.rows() * stems.columns() * sizeof(double);
  });
  const double taken =
      static_cast<double>(watch.take_peak()) - before - static_cast<double>(result);
  release_freed_memory();
  return taken / static_cast<double>(spectrum_frames(samples) * C14_BINS);
}

}  // namespace verdel::internal
