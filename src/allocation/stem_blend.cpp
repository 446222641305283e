#include "allocation/stem_blend.hpp"

#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kImaginary = Tile::kRow;

// The gated differences of two stems as one complex signal's spectrum; `odd` is `even` with a gate
// of nothing where there is no second stem.
VERDEL_INLINE void pair_tails(const float* even, const float* odd, const float* gate, float second,
                              float* spectrum) {
  float* mirrored = spectrum + 2 * C14_FFT_SIZE;
  VERDEL_INDEPENDENT
  for (std::size_t k = 0; k + 1 < C14_BINS; ++k) {
    const float a = even[k] * gate[k], b = even[kImaginary + k] * gate[k];
    const float c = odd[k] * (second * gate[k]), d = odd[kImaginary + k] * (second * gate[k]);
    spectrum[2 * k] = a - d;
    spectrum[2 * k + 1] = b + c;
    *(mirrored - 2 * k) = a + d;
    *(mirrored - 2 * k + 1) = c - b;
  }
  // At 0 and at half the rate a real signal has no imaginary part.
  for (const std::size_t k : {std::size_t{0}, C14_BINS - 1}) {
    spectrum[2 * k] = even[k] * gate[k];
    spectrum[2 * k + 1] = odd[k] * (second * gate[k]);
  }
}

VERDEL_INLINE void add_up(const float* __restrict tap, const double* __restrict gain,
                          const float* __restrict share, const double* __restrict tail,
                          const double* __restrict weight, std::size_t count,
                          double* __restrict stem) {
  for (std::size_t n = 0; n < count; ++n) {
    // In single precision, as it is delivered: what is rounded again is the tails alone.
    const auto kept =
        static_cast<float>(static_cast<double>(tap[n]) * gain[n] + static_cast<double>(share[n]));
    stem[n] = static_cast<double>(kept) + tail[n] * weight[n];
  }
}

}  // namespace

StemBlend::StemBlend(const ChannelJob& job, const EndpointRendering& endpoints,
                     const SpectralTransform& transform)
    : job_(job),
      endpoints_(endpoints),
      extent_{job.samples()},
      pairs_((job.stems() + 1) / 2),
      overlap_(transform, extent_, pairs_),
      stems_(AudioArray::zeros(job.stems(), C14_HOP)) {}

void StemBlend::add(std::size_t frame, const FrameProjection& projected,
                    std::span<const float> gate) {
  for (std::size_t pair = 0; pair < pairs_; ++pair) {
    const std::size_t even = 2 * pair;
    const bool has_odd = even + 1 < job_.stems();
    const std::size_t odd = has_odd ? even + 1 : even;
    if (endpoints_.is_silent(even, frame) && endpoints_.is_silent(odd, frame)) continue;
    run_kernel<pair_tails>(projected.differences.row(even).data(),
                           projected.differences.row(odd).data(), gate.data(),
                           has_odd ? 1.0F : 0.0F, buffers_.bins());
    overlap_.add(pair, frame, buffers_);
  }
}

void StemBlend::finish_stem(std::size_t stem, std::size_t hop, const double* weight,
                            const double* tail) {
  const std::size_t first = hop * C14_HOP;
  run_kernel<add_up>(job_.taps[stem].data() + first, job_.gain.data() + first,
                     endpoints_.shares().hop(2 * stem + 1, hop), tail, weight,
                     extent_.hop_samples(hop), stems_.row(stem).data());
}

}  // namespace verdel::internal
