#include "allocation/channel_render.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "allocation/channel_spectra.hpp"
#include "allocation/endpoint_rendering.hpp"
#include "allocation/source_scoring.hpp"
#include "allocation/stem_blend.hpp"
#include "allocation/stem_onsets.hpp"
#include "allocation/stem_projection.hpp"
#include "allocation/tail_candidates.hpp"
#include "allocation/tail_gate.hpp"
#include "signal/sums.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

/// Gathers hops to blocks of some length, cut to the job's span, for the caller.
class StemOutput {
 public:
  StemOutput(const ChannelJob& job, const StoreStems& store)
      : job_(job),
        store_(store),
        gathered_(AudioArray::uninitialised(job.stems(), kHops * C14_HOP)) {}

  void add(std::size_t hop, RowsView<const double> stems) {
    const std::size_t begin = hop * C14_HOP, end = begin + C14_HOP;
    const std::size_t first = std::clamp(job_.start, begin, end);
    const std::size_t stop = std::clamp(job_.stop, first, end);
    if (first == stop) return;
    if (count_ == 0) first_ = first;
    for (std::size_t stem = 0; stem < job_.stems(); ++stem) {
      std::copy_n(stems.row(stem).data() + (first - begin), stop - first,
                  gathered_.row(stem).data() + count_);
    }
    count_ += stop - first;
    if (count_ + C14_HOP > gathered_.columns()) flush();
  }
  void finish() {
    flush();
    conservation_.require();
  }

 private:
  static constexpr std::size_t kHops = 16;

  void flush() {
    if (count_ == 0) return;
    const auto stems = std::as_const(gathered_).view().column_range(0, count_);
    conservation_.add(stems, job_.mix.subspan(first_, count_));
    store_(first_, stems);
    count_ = 0;
  }

  const ChannelJob& job_;
  const StoreStems& store_;
  AudioArray gathered_;
  std::size_t first_ = 0, count_ = 0;
  Conservation conservation_;
};

/// The steps of a render, in the order in which a block goes through them. Each reads what those
/// before it hold out, and writes what is its own.
class ChannelStream {
 public:
  ChannelStream(const ChannelJob& job, const StoreStems& store)
      : job_(job),
        spectra_(job, transform_),
        scoring_(spectra_, job.sr),
        endpoints_(spectra_, scoring_, transform_),
        onsets_(scoring_.support(), job.stems(), job.sr),
        candidates_(scoring_.support(), onsets_, job.stems(), frames(), job.sr),
        projection_(spectra_, endpoints_, transform_),
        blend_(job, endpoints_, transform_),
        gate_(Array2D<float>::zeros(1, Tile::kRow)),
        output_(job, store) {}

  void run(const FramesFinished& finished, const StopToken& stop) {
    for (std::size_t first = 0; first < frames(); first += Block::kFrames) {
      stop.check();
      const Block block{first, std::min(first + Block::kFrames, frames())};
      analyse(block);
      const std::size_t before = blended_;
      // The last frames have none behind them to wait for.
      const bool is_last = block.stop == frames();
      const std::size_t ahead = is_last ? 0 : std::min(block.stop, TailCandidates::kAhead);
      blend(block.stop - ahead);
      if (finished) finished(blended_ - before);
    }
    for (std::size_t k = 0; k < PairOverlap::frames_after(); ++k) finish(frames() + k);
    output_.finish();
  }

 private:
  std::size_t frames() const { return spectra_.extent().frames(); }

  void analyse(const Block& block) {
    const std::size_t ahead = std::min(block.stop + SourceScoring::kAhead, frames());
    spectra_.extend({transformed_, ahead});
    transformed_ = ahead;
    scoring_.score(block);
    endpoints_.render(block);
    onsets_.find(block);
  }

  void blend(std::size_t stop) {
    const Block block{blended_, stop};
    if (block.length() == 0) return;
    candidates_.find(block);
    for (; blended_ < stop; ++blended_) {
      const auto& candidates = candidates_.of(blended_);
      if (!candidates.empty() && reaches_span(blended_)) {
        projection_.project(blended_);
        if (open_tail_gate(candidates, projection_.projected(), gate_.flat())) {
          blend_.add(blended_, projection_.projected(), gate_.flat());
        }
      }
      finish(blended_);
    }
  }

  void finish(std::size_t frame) {
    blend_.finish(frame, [&](std::size_t hop) { output_.add(hop, blend_.stems()); });
  }

  bool reaches_span(std::size_t frame) const {
    const std::size_t centre = frame * C14_HOP;
    return centre + C14_FFT_SIZE / 2 > job_.start && centre < job_.stop + C14_FFT_SIZE / 2;
  }

  const ChannelJob& job_;
  SpectralTransform transform_;
  ChannelSpectra spectra_;
  SourceScoring scoring_;
  EndpointRendering endpoints_;
  StemOnsets onsets_;
  TailCandidates candidates_;
  StemProjection projection_;
  StemBlend blend_;
  Array2D<float> gate_;
  StemOutput output_;
  std::size_t transformed_ = 0, blended_ = 0;  // frames
};

}  // namespace

void check_channel_job(const ChannelJob& job) {
  const std::size_t samples = job.samples();
  if (job.start >= job.stop || job.stop > samples || job.taps.empty()) {
    throw ValueError("invalid candidate-14 allocation inputs or interval");
  }
  if (samples < C14_FFT_SIZE) {
    throw ValueError(fmt::format("Candidate 14 needs at least {} audio frames", C14_FFT_SIZE));
  }
  for (const auto& tap : job.taps) {
    if (tap.size() != samples || job.gain.size() != samples) {
      throw ValueError("candidate-14 models must match the finite residual");
    }
  }
}

std::uint64_t render_bytes(std::size_t stems) {
  constexpr std::uint64_t kStem = 5600000, kShared = 9000000;  // measured, rounded up
  return kShared + stems * kStem;
}

void _render_transient_release_tail_channel_full(const ChannelJob& job, const StoreStems& store,
                                                 const FramesFinished& finished,
                                                 const StopToken& stop) {
  ChannelStream(job, store).run(finished, stop);
}

void Conservation::add(RowsView<const double> stems, std::span<const double> mix) {
  for (std::size_t stem = 0; stem < stems.rows(); ++stem) {
    if (!all_finite(stems.row(stem))) {
      throw FloatingPointError("non-finite candidate-14 allocation");
    }
  }
  for (std::size_t i = 0; i < mix.size(); ++i) {
    double sum = 0.0;
    for (std::size_t stem = 0; stem < stems.rows(); ++stem) sum += stems.row(stem)[i];
    error = std::max(error, std::abs(sum - mix[i]));
    peak = std::max(peak, std::abs(mix[i]));
  }
}

void Conservation::require() const {
  if (error > C14_CONSERVATION_TOLERANCE * std::max(1.0, peak)) {
    throw FloatingPointError(
        fmt::format("candidate-14 allocation failed conservation ({:g})", error));
  }
}

}  // namespace verdel::internal
