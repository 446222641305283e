#pragma once

#include <cstddef>
#include <vector>

#include "allocation/channel_job.hpp"
#include "allocation/rings.hpp"
#include "allocation/spectral_frames.hpp"

namespace verdel::internal {

/// First step: the spectra of the residual and of every stem's model, and where a stem is silent.
///
/// In: the job's samples. Out: spectra of the last kRingFrames frames.
class ChannelSpectra {
 public:
  ChannelSpectra(const ChannelJob& job, const SpectralTransform& transform);

  /// Transforms the frames of the block, which follow those before.
  void extend(const Block& frames);

  const SignalExtent& extent() const { return extent_; }
  std::size_t stems() const { return job_.stems(); }
  const SpectrumRing& residual() const { return residual_; }
  const SpectrumRing& models() const { return models_; }  ///< rows: stems

  /// Whether the stem's samples under all frames first .. stop - 1 are zero; frames outside the
  /// signal count as its nearest. stop - 1 is transformed, first not more than 200 before it.
  bool is_silent(std::size_t stem, std::ptrdiff_t first, std::size_t stop) const;

 private:
  void make_residual(std::size_t hop);
  void count_silence(std::size_t stem, std::size_t hop);
  void transform_model(std::size_t stem, std::size_t frame);

  const ChannelJob& job_;
  const SpectralTransform& transform_;
  SignalExtent extent_;
  HopRing<double> residual_samples_{1};
  SpectrumRing residual_{1}, models_;
  FrameRing<std::size_t> silent_frames_;  // frames of silence up to this one
  std::vector<std::size_t> silent_hops_;  // hops of silence up to the last one read
  std::size_t hops_ = 0;                  // read so far
  FrameBuffers buffers_;
};

}  // namespace verdel::internal
