#include "allocation/interval_rendering.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <deque>
#include <mutex>
#include <numeric>

#include "allocation/channel_render.hpp"
#include "allocation/spectral_frames.hpp"
#include "allocation/worker_budgets.hpp"
#include "signal/sequences.hpp"
#include "support/ordered_prefetch.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kBefore = C14_CONTEXT_BEFORE_HOPS * C14_HOP;
constexpr std::size_t kAfter = C14_CONTEXT_AFTER_HOPS * C14_HOP;
// Below this the context of a piece costs more than its processor gains.
constexpr std::size_t kShortestPiece = 512 * C14_HOP;

/// Consecutive pieces that cover the span, their lengths one sample apart at most.
std::vector<SampleSpan> cut_span(std::size_t start, std::size_t stop, std::size_t count) {
  const auto bounds =
      linspace_floor(static_cast<std::int64_t>(start), static_cast<std::int64_t>(stop), count + 1);
  std::vector<SampleSpan> pieces(count);
  for (std::size_t i = 0; i < count; ++i) {
    pieces[i] = {static_cast<std::size_t>(bounds[i]), static_cast<std::size_t>(bounds[i + 1])};
  }
  return pieces;
}

/// Intervals that a channel's progress counts.
std::size_t interval_count(const ChannelJob& job) {
  const auto span = static_cast<double>(job.stop - job.start);
  if (span < std::nearbyint(C14_INTERVAL_MIN_SECONDS * job.sr)) return 1;
  const double interval = std::max(1.0, std::nearbyint(C14_INTERVAL_SECONDS * job.sr));
  return std::max<std::size_t>(2, static_cast<std::size_t>(std::ceil(span / interval)));
}

/// The channel's one count: each interval counts 0 .. units, and their mean is told at every step.
class ChannelProgress {
 public:
  ChannelProgress(const ChannelJob& job, std::size_t frames, const StopToken& stop)
      : progress_(job.progress),
        stop_(stop),
        units_(job.stems() * C14_STEPS_PER_STEM),
        intervals_(interval_count(job)),
        frames_(frames) {}

  void advance(std::size_t frames) {
    if (!progress_) return;
    // The caller's callback runs under the lock, so that its counts come one at a time and never
    // fall; it must not come back here.
    const std::lock_guard lock(progress_lock_);
    finished_ += frames;
    const std::size_t reports = (units_ + 1) * intervals_;
    for (; told_ < reports * finished_ / frames_; ++told_) {
      stop_.check();
      const std::size_t steps = told_ / (units_ + 1) * units_ + told_ % (units_ + 1);
      progress_(steps / intervals_, units_);
    }
    if (finished_ == frames_ && intervals_ > 1) progress_(units_, units_);
  }

 private:
  const RenderProgress& progress_;
  const StopToken& stop_;
  std::size_t units_, intervals_, frames_, finished_ = 0, told_ = 0;
  std::mutex progress_lock_;
};

/// What is rendered at a time.
struct Piece {
  std::size_t channel;
  SampleSpan span, slice;  ///< what is stored, and with its context
};

std::vector<Piece> cut_channels(const SampleSpan& span, std::size_t samples, std::size_t channels,
                                std::size_t workers) {
  const std::size_t wanted = workers / std::gcd(workers, channels);
  const std::size_t fitting = std::max<std::size_t>(1, span.length() / kShortestPiece);
  std::vector<Piece> pieces;
  for (std::size_t channel = 0; channel < channels; ++channel) {
    for (const SampleSpan& part : cut_span(span.first, span.stop, std::min(wanted, fitting))) {
      pieces.push_back({channel, part, with_context(part, samples)});
    }
  }
  return pieces;
}

std::size_t frames_of(const std::vector<Piece>& pieces, std::size_t channel) {
  std::size_t frames = 0;
  for (const Piece& piece : pieces) {
    if (piece.channel == channel) frames += spectrum_frames(piece.slice.length());
  }
  return frames;
}

/// Renders one piece from the slice of the signals that is its context.
void _render_transient_release_tail_channel_interval(const ChannelJob& job, const Piece& piece,
                                                     const StoreInterval& store,
                                                     const FramesFinished& finished,
                                                     const StopToken& stop) {
  const SampleSpan& slice = piece.slice;
  ChannelJob part = job;
  part.start = piece.span.first - slice.first;
  part.stop = piece.span.stop - slice.first;
  part.mix = job.mix.subspan(slice.first, slice.length());
  part.gain = job.gain.subspan(slice.first, slice.length());
  for (auto& tap : part.taps) tap = tap.subspan(slice.first, slice.length());
  _render_transient_release_tail_channel_full(
      part,
      [&](std::size_t first, RowsView<const double> stems) {
        store(piece.channel, slice.first + first, stems);
      },
      finished, stop);
}

}  // namespace

SampleSpan with_context(const SampleSpan& span, std::size_t samples) {
  const std::size_t before = span.first - std::min(span.first, kBefore);
  const std::size_t after = span.stop + kAfter;
  return {before / C14_HOP * C14_HOP, std::min(samples, (after + C14_HOP - 1) / C14_HOP * C14_HOP)};
}

std::size_t frames_to_render(const SampleSpan& span, std::size_t samples, std::size_t stems,
                             std::size_t channels, const Machine& machine) {
  const std::size_t workers = render_worker_count(render_bytes(stems), machine);
  return channels * frames_of(cut_channels(span, samples, channels, workers), 0);
}

void render_channel_intervals(const std::vector<ChannelJob>& channels, const Machine& machine,
                              const StopToken& stop, const StoreInterval& store) {
  for (const ChannelJob& job : channels) check_channel_job(job);
  const ChannelJob& shape = channels.front();
  const std::size_t workers = render_worker_count(render_bytes(shape.stems()), machine);
  const std::vector<Piece> pieces =
      cut_channels({shape.start, shape.stop}, shape.samples(), channels.size(), workers);
  std::deque<ChannelProgress> counts;
  for (std::size_t channel = 0; channel < channels.size(); ++channel) {
    counts.emplace_back(channels[channel], frames_of(pieces, channel), stop);
  }
  auto rendered = _ordered_prefetch(
      [&](std::size_t index) {
        const Piece& piece = pieces[index];
        _render_transient_release_tail_channel_interval(
            channels[piece.channel], piece, store,
            [&](std::size_t frames) { counts[piece.channel].advance(frames); }, stop);
        return index;
      },
      pieces.size(), std::min(workers, pieces.size()), "verdel-c14-time");
  while (rendered.next()) {
  }
}

}  // namespace verdel::internal
