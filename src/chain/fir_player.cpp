#include "chain/fir_player.hpp"

#include <algorithm>
#include <bit>

namespace verdel::internal {
namespace {

/// The filters' spectra at the length of the player's transforms. Single precision lies 130 dB
/// under the sound, deep enough for everything that is only measured.
template <class Real>
class Player {
  using Spectrum = Array2D<std::complex<Real>>;

 public:
  Player(const ChainFir& fir, std::ptrdiff_t lag)
      : fir_(fir),
        lag_(lag),
        transform_(std::bit_ceil(4 * fir.length)),
        responses_(fir.responses.size()) {
    const double scale = 1.0 / static_cast<double>(transform_.length());
    auto time = Array2D<Real>::uninitialised(1, transform_.length());
    for (std::size_t i = 0; i < responses_.size(); ++i) {
      const auto& response = fir.responses[i];
      if (std::ranges::all_of(response, [](double v) { return v == 0.0; })) continue;
      std::ranges::fill(time.flat(), Real{0});
      std::ranges::transform(response, time.data(),
                             [scale](double v) { return static_cast<Real>(scale * v); });
      responses_[i] = Spectrum::uninitialised(1, transform_.bins());
      transform_.forward(time.data(), responses_[i].data());
    }
  }

  void play_channel(AudioView audio, std::size_t out, std::span<double> result,
                    const StopToken& stop) const {
    const std::size_t n = transform_.length(), block = n - fir_.length;
    auto time = Array2D<Real>::uninitialised(1, n);
    auto input = Spectrum::uninitialised(1, transform_.bins());
    auto sum = Spectrum::uninitialised(1, transform_.bins());
    for (std::size_t first = 0; first < result.size(); first += block) {
      stop.check();
      std::ranges::fill(sum.flat(), std::complex<Real>());
      for (std::size_t in = 0; in < fir_.channels; ++in) {
        const Spectrum& response = responses_[out * fir_.channels + in];
        if (response.empty()) continue;
        take(audio.row(in), first, time.flat());
        transform_.forward(time.data(), input.data());
        multiply_add(input.flat(), response.flat(), sum.flat());
      }
      transform_.inverse(sum.data(), time.data());
      const std::size_t count = std::min(block, result.size() - first);
      std::transform(time.data() + fir_.length, time.data() + fir_.length + count,
                     result.data() + first,
                     [](Real sample) { return static_cast<double>(sample); });
    }
  }

 private:
  // Sample j of `time` is sample first + length / 2 - length + j of the row as it is moved: the
  // output at `first` is then found at `length`, all of its input before it.
  void take(std::span<const double> row, std::size_t first, std::span<Real> time) const {
    const auto begin = static_cast<std::ptrdiff_t>(first + fir_.length / 2) -
                       static_cast<std::ptrdiff_t>(fir_.length) - lag_;
    const auto size = static_cast<std::ptrdiff_t>(row.size());
    const auto from = std::clamp<std::ptrdiff_t>(begin, 0, size);
    const auto to =
        std::clamp<std::ptrdiff_t>(begin + static_cast<std::ptrdiff_t>(time.size()), from, size);
    std::ranges::fill(time, Real{0});
    std::transform(row.begin() + from, row.begin() + to, time.begin() + (from - begin),
                   [](double sample) { return static_cast<Real>(sample); });
  }

  static void multiply_add(std::span<const std::complex<Real>> x,
                           std::span<const std::complex<Real>> h,
                           std::span<std::complex<Real>> sum) {
    const auto* __restrict a = reinterpret_cast<const Real*>(x.data());
    const auto* __restrict b = reinterpret_cast<const Real*>(h.data());
    auto* __restrict to = reinterpret_cast<Real*>(sum.data());
    for (std::size_t k = 0; k < sum.size(); ++k) {
      to[2 * k] += a[2 * k] * b[2 * k] - a[2 * k + 1] * b[2 * k + 1];
      to[2 * k + 1] += a[2 * k] * b[2 * k + 1] + a[2 * k + 1] * b[2 * k];
    }
  }

  const ChainFir& fir_;
  std::ptrdiff_t lag_;
  RealTransform<Real> transform_;
  std::vector<Spectrum> responses_;
};

template <class Real>
void play_as(AudioView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
             AudioArray& result) {
  const Player<Real> player(fir, lag);
  run_indexed(job.pool, audio.rows(),
              [&](std::size_t out) { player.play_channel(audio, out, result.row(out), job.stop); });
}

}  // namespace

void play(AudioView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
          AudioArray& result) {
  play_as<double>(audio, lag, fir, job, result);
}

void play_to_measure(AudioView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
                     AudioArray& result) {
  play_as<float>(audio, lag, fir, job, result);
}

}  // namespace verdel::internal
