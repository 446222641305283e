#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <vector>

#include "allocation/channels.hpp"
#include "support/machine.hpp"

/// Where the allocator's time goes: its phases, told apart while it renders.
namespace verdel::internal {

/// Spectrum frames of each interval in which the allocator renders a range of a song of `samples`,
/// context included; the only one if the range is not cut.
std::vector<std::size_t> interval_frames(const SampleSpan& range, std::size_t samples, int sr);

/// What one kind of interval has cost, phase by phase.
struct PhaseTimes {
  /// The first holds everything in front of the phases: checks, scratch files, the residual's
  /// spectrum, and what is done with the interval before on the same thread.
  static constexpr std::array<const char*, 7> kNames = {
      "set-up", "scoring", "endpoints", "projection", "onsets", "gate", "blend"};

  std::array<double, kNames.size()> seconds{};
  std::size_t intervals = 0;

  double sum() const;
  void scale(double factor);
};

/// Listens to a render of whole channels. An interval reports on the thread that renders it, first
/// when the residual's spectrum is ready and then at the end of every stem in every phase, so that
/// the thread's clock between two reports is what that phase took.
///
/// The first interval in a set of scratch files and buffers touches their pages; later ones find
/// them there. The two kinds are counted apart.
class PhaseWatch {
 public:
  /// `one_thread`: whether a render works on its own thread alone and its processor time is taken;
  /// else it is time on the clock, good for shares only. `sets` of scratch: intervals at once,
  /// which the first ones to begin make.
  PhaseWatch(std::size_t stems, bool one_thread, std::size_t sets);

  /// One report; `done` and `total` as a channel's progress has them. Threads: any.
  void step(std::size_t done, std::size_t total);

  const PhaseTimes& first() const { return first_; }
  const PhaseTimes& repeated() const { return repeated_; }

 private:
  std::size_t stems_;
  bool one_thread_;
  std::size_t fresh_sets_;
  double begin_;
  std::mutex mutex_;
  PhaseTimes first_, repeated_;
};

/// Bytes of anonymous memory that one render on one thread takes for a cell of its spectrum, its
/// result aside: measured on a few seconds of the first channel.
double working_bytes_per_cell(const Model& model, const Machine& machine, int sr);

}  // namespace verdel::internal
