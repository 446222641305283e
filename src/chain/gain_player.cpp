#include "chain/gain_player.hpp"

#include <algorithm>

#include "chain/gain_frames.hpp"
#include "signal/transforms.hpp"
#include "signal/windows.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kStretch = 8192;  // samples of a gain for all frequencies at a time

/// Plays rows through a gain in bands; a row may be its own result, since a sample is complete when
/// all frames that hold it have been read.
class BandPlayer {
 public:
  BandPlayer(const FineGain& gain, const ChainJob& job)
      : gain_(gain),
        plan_(true, job.sr),
        stop_(job.stop),
        transform_(plan_.frame),
        window_(root_window(plan_.frame)) {}

  void play(std::span<const float> row, std::size_t channel, std::span<float> result) const {
    const Array2D<double>& factors = gain_.of_channel(channel);
    const std::size_t frame = plan_.frame, hop = plan_.hop(), samples = row.size();
    const auto hop_ahead = static_cast<std::ptrdiff_t>(hop);
    std::vector<double> input(frame), output(frame);
    auto time = Array2D<double>::uninitialised(1, frame);
    auto spectrum = Array2D<std::complex<double>>::uninitialised(1, plan_.bins());
    for (std::size_t k = 0; k < factors.rows(); ++k) {
      stop_.check();
      const std::ptrdiff_t begin = plan_.begin_of(k);
      // The last hop of the frame comes in, and what the first one holds afterwards is complete.
      std::copy(input.begin() + hop_ahead, input.end(), input.begin());
      const std::ptrdiff_t entering = begin + static_cast<std::ptrdiff_t>(frame - hop);
      for (std::size_t i = 0; i < hop; ++i) {
        // Silence around the song; before it the place wraps round.
        const auto at = static_cast<std::size_t>(entering + static_cast<std::ptrdiff_t>(i));
        input[frame - hop + i] = at < samples ? static_cast<double>(row[at]) : 0.0;
      }
      turn_frame(input, factors.row(k), engine_at(channel, k), time, spectrum, output);
      for (std::size_t i = 0; i < hop; ++i) {
        const auto at = static_cast<std::size_t>(begin + static_cast<std::ptrdiff_t>(i));
        if (at < samples) result[at] = static_cast<float>(output[i]);
      }
      std::copy(output.begin() + hop_ahead, output.end(), output.begin());
      std::fill(output.end() - hop_ahead, output.end(), 0.0);
    }
  }

 private:
  double engine_at(std::size_t channel, std::size_t frame) const {
    return gain_.engine.empty() ? 1.0 : gain_.engine.row(channel)[frame];
  }

  void turn_frame(const std::vector<double>& input, std::span<const double> factors, double engine,
                  Array2D<double>& time, Array2D<std::complex<double>>& spectrum,
                  std::vector<double>& output) const {
    const std::size_t frame = plan_.frame;
    const double scale = 2.0 * engine / static_cast<double>(frame * (frame / plan_.hop()));
    for (std::size_t i = 0; i < frame; ++i) time.data()[i] = window_[i] * input[i];
    transform_.forward(time.data(), spectrum.data());
    for (std::size_t bin = 0; bin < plan_.bins(); ++bin) {
      const double toward = plan_.toward[bin];
      spectrum.data()[bin] *=
          (1.0 - toward) * factors[plan_.lower[bin]] + toward * factors[plan_.upper(bin)];
    }
    transform_.inverse(spectrum.data(), time.data());
    for (std::size_t i = 0; i < frame; ++i) output[i] += scale * window_[i] * time.data()[i];
  }

  const FineGain& gain_;
  GainPlan plan_;
  const StopToken& stop_;
  RealTransform<double> transform_;
  std::vector<double> window_;
};

/// Calls work(first, factors) for stretches of every channel; the channels apart only if they
/// differ.
template <class Work>
void for_each_stretch_of(const FineGain& gain, std::size_t channels, std::size_t samples,
                         const ChainJob& job, Work work) {
  const FactorCurve curve(gain, true);
  const bool alike = !gain.channels_apart() && gain.engine.empty();
  run_indexed(job.pool, (samples + kStretch - 1) / kStretch, [&](std::size_t index) {
    job.stop.check();
    const std::size_t first = index * kStretch;
    std::vector<double> factors(std::min(kStretch, samples - first));
    for (std::size_t c = 0; c < channels; ++c) {
      if (c == 0 || !alike) curve.read(c, first, factors);
      work(c, first, factors);
    }
  });
}

void multiply(std::span<const float> row, const std::vector<double>& factors, std::size_t first,
              std::span<float> result) {
  for (std::size_t i = 0; i < factors.size(); ++i) {
    result[first + i] = static_cast<float>(factors[i] * static_cast<double>(row[first + i]));
  }
}

}  // namespace

FactorCurve::FactorCurve(const FineGain& gain, bool as_played)
    : gain_(gain),
      with_engine_(as_played && !gain.engine.empty()),
      window_(get_window(gain.frame)) {}

void FactorCurve::read(std::size_t channel, std::size_t first, std::span<double> into) const {
  const Array2D<double>& factors = gain_.of_channel(channel);
  const std::size_t hop = gain_.hop, overlap = gain_.frame / hop;
  std::ranges::fill(into, 0.0);
  for (std::size_t i = 0; i < into.size();) {
    const std::size_t phase = (first + i) % hop, last = (first + i + gain_.frame) / hop;
    const std::size_t count = std::min(hop - phase, into.size() - i);
    double* const out = into.data() + i;
    for (std::size_t k = 0; k < overlap; ++k) {
      double weight = factors.row(last - k)[0] / (static_cast<double>(overlap) / 2.0);
      if (with_engine_) weight *= gain_.engine.row(channel)[last - k];
      const double* const part = window_.data() + k * hop + phase;
      for (std::size_t j = 0; j < count; ++j) out[j] += weight * part[j];
    }
    i += count;
  }
}

void play(HeardView audio, const FineGain& gain, const ChainJob& job, Heard& result) {
  if (!gain.in_bands) {
    for_each_stretch_of(gain, audio.rows(), audio.columns(), job,
                        [&](std::size_t c, std::size_t first, const std::vector<double>& factors) {
                          multiply(audio.row(c), factors, first, result.row(c));
                        });
    return;
  }
  const BandPlayer player(gain, job);
  run_indexed(job.pool, audio.rows(),
              [&](std::size_t c) { player.play(audio.row(c), c, result.row(c)); });
}

void play(const FineGain& gain, const ChainJob& job, StemMap& taps) {
  const std::size_t channels = job.mix.rows();
  if (!gain.in_bands) {
    for_each_stretch_of(gain, channels, job.mix.columns(), job,
                        [&](std::size_t c, std::size_t first, const std::vector<double>& factors) {
                          for (auto& tap : taps) {
                            multiply(tap.audio.row(c), factors, first, tap.audio.row(c));
                          }
                        });
    return;
  }
  const BandPlayer player(gain, job);
  run_indexed(job.pool, channels * taps.size(), [&](std::size_t task) {
    const auto row = taps[task / channels].audio.row(task % channels);
    player.play(row, task % channels, row);
  });
}

}  // namespace verdel::internal
