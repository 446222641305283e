#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "allocation/channel_job.hpp"
#include "signal/arrays.hpp"
#include "support/stop_token.hpp"

/// One render of one channel: the residual shared out among the stems over a whole signal, block by
/// block through all steps. Nothing is kept of a block but what the rings hold (see rings.hpp).
namespace verdel::internal {

/// Called with a position in the signal and the stems from there, [stems][samples], in order.
using StoreStems = std::function<void(std::size_t first, RowsView<const double> stems)>;
/// Called with the frames finished since the last call.
using FramesFinished = std::function<void(std::size_t frames)>;

/// Renders the whole signal and hands the stems over the job's span to `store` as they are
/// finished. The span selects what is stored and what the closing test covers, never a value.
///
/// The job has passed check_channel_job, whole or as a part of one that has.
/// Errors: FloatingPointError for a mix, ValueError for a tap or a gain that is not finite;
/// FloatingPointError for stems that are not finite, or, at the
/// end, whose sum misses the mix by more than C14_CONSERVATION_TOLERANCE: that they add up holds by
/// construction, and is proved. Obeys `stop` within a block.
void _render_transient_release_tail_channel_full(const ChannelJob& job, const StoreStems& store,
                                                 const FramesFinished& finished = {},
                                                 const StopToken& stop = {});

/// The tests that the shape of inputs must pass: one length of C14_FFT_SIZE samples or more, a span
/// inside it. Throws ValueError.
void check_channel_job(const ChannelJob& job);

/// Bytes of memory that one render takes, whatever its length.
std::uint64_t render_bytes(std::size_t stems);

/// How far the stems of a span miss the mix, sample by sample.
struct Conservation {
  double error = 0.0, peak = 0.0;

  /// Adds the stems, [stems][samples], that stand for the samples of `mix`. FloatingPointError for
  /// one that is not finite.
  void add(RowsView<const double> stems, std::span<const double> mix);
  /// FloatingPointError where the sum is missed.
  void require() const;
};

}  // namespace verdel::internal
