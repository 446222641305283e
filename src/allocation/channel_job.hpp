#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <vector>

namespace verdel::internal {

/// Called with the steps finished and the steps in all, on a thread that renders.
using RenderProgress = std::function<void(std::size_t done, std::size_t total)>;

/// What the allocator is given of one channel. Spans refer to the caller's rows, all of one length.
/// A stem's model is tap * gain; the residual is the mix minus the sum of the models. Neither
/// stands anywhere whole.
struct ChannelJob {
  std::vector<std::span<const float>> taps;  ///< one row per stem, in stem order
  std::span<const double> gain;              ///< the shared gain's factor at each sample
  std::span<const double> mix;
  int sr = 0;                       ///< Hz
  std::size_t start = 0, stop = 0;  ///< the span wanted, in samples, stop excluded
  RenderProgress progress;          ///< may be empty

  std::size_t stems() const { return taps.size(); }
  std::size_t samples() const { return mix.size(); }
};

}  // namespace verdel::internal
