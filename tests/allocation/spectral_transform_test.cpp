#include "allocation/spectral_transform.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

#include "allocation/onset_history.hpp"
#include "test_song.hpp"

namespace verdel::internal {
namespace {

std::vector<double> noise_of(std::size_t samples) {
  testing::Noise noise(3);
  std::vector<double> signal(samples);
  for (double& value : signal) value = noise();
  return signal;
}

TEST(SpectralTransform, AFrameIsTheWindowedSumAroundItsCentre) {
  const std::vector<double> signal = noise_of(5000);
  const SpectralTransform transform;
  FrameBuffers buffers;
  for (const auto& [frame, bin] : {std::pair<std::size_t, std::size_t>{0, 3}, {7, 0}, {20, 1024}}) {
    std::complex<double> expected = 0.0;
    for (int m = 0; m < 2048; ++m) {
      const auto i = static_cast<std::ptrdiff_t>(frame * 256) + m - 1024;
      if (i < 0 || i >= 5000) continue;
      const double turn = 2.0 * std::numbers::pi * m / 2048.0;
      expected += (0.5 - 0.5 * std::cos(turn)) * signal[static_cast<std::size_t>(i)] *
                  std::polar(1.0 / 1024.0, -turn * static_cast<double>(bin));
    }
    transform_frame(transform, signal, frame, buffers);
    EXPECT_LT(std::abs(buffers.spectrum.data()[bin] - expected), 1e-14);
  }
}

TEST(SpectralTransform, InverseGivesTheSignalBackToItsFirstAndLastSample) {
  const SpectralTransform transform;
  for (const std::size_t samples : {2048U, 2049U, 2303U, 2304U, 2305U, 7777U}) {
    EXPECT_EQ(spectrum_frames(samples), (samples + 255) / 256 + 1);
    const std::vector<double> signal = noise_of(samples);
    std::vector<double> returned(samples, 99.0);
    FrameBuffers buffers;
    OverlapAdd overlap(transform, samples);
    const auto store = [&](std::size_t first, std::span<const double> values) {
      std::copy(values.begin(), values.end(),
                returned.begin() + static_cast<std::ptrdiff_t>(first));
    };
    for (std::size_t frame = 0; frame < spectrum_frames(samples); ++frame) {
      transform_frame(transform, signal, frame, buffers);
      overlap.add(buffers, store);
    }
    overlap.finish(store);
    for (std::size_t i = 0; i < samples; ++i) ASSERT_NEAR(returned[i], signal[i], 1e-14) << i;
  }
}

TEST(SpectralTransform, SmoothStepAtAndBeyondItsEdges) {
  EXPECT_EQ(_c14_smoothstep(0.2, 0.2, 0.4), 0.0);
  EXPECT_EQ(_c14_smoothstep(-5.0, 0.2, 0.4), 0.0);
  EXPECT_NEAR(_c14_smoothstep(0.25, 0.2, 0.4), 0.15625, 1e-15);
  EXPECT_EQ(_c14_smoothstep(0.5, 0.2, 0.4), 1.0);
  EXPECT_EQ(_c14_smoothstep(0.5 + 1e-11, 0.5, 0.1), 1.0) << "edges in the wrong order";
  EXPECT_EQ(_c14_smoothstep(0.5, 0.5, 0.1), 0.0);
}

TEST(OnsetHistory, IsThePeakOfTheFadedPast) {
  testing::Noise noise(5);
  for (const std::size_t frames : {1U, 4U, 5U, 145U, 300U}) {
    const std::size_t columns = 16;
    std::vector<float> current(frames * columns), history(columns), gated(columns);
    std::vector<double> onset(frames);
    for (float& value : current) value = static_cast<float>(std::abs(noise()));
    for (double& value : onset) value = std::max(0.0, noise());
    const HistoryDecays decays = history_decays(44100);
    for (std::size_t t = 0; t < frames; ++t) {
      _c14_history(current.data(), onset, columns, decays, t, history.data(), gated.data());
      for (std::size_t b = 0; b < columns; ++b) {
        double peak = 0.0, gated_peak = 0.0;
        for (const std::size_t d : {4U, 7U, 11U, 17U, 26U, 40U, 64U, 96U, 144U}) {
          if (d > t) continue;
          const double past = std::exp(-(static_cast<double>(d) * 256 / 44100) / 0.42) *
                              static_cast<double>(current[(t - d) * columns + b]);
          peak = std::max(peak, past);
          gated_peak = std::max(gated_peak, past * onset[t - d]);
        }
        ASSERT_EQ(history[b], static_cast<float>(peak));
        ASSERT_EQ(gated[b], static_cast<float>(gated_peak));
      }
    }
  }
}

TEST(OnsetHistory, PreviousMeanLeavesTheValueItselfOut) {
  const std::vector<double> envelope = {8.0, 4.0, 0.0, 2.0, 6.0};
  EXPECT_EQ(_c14_previous_mean(envelope, 2), (std::vector<double>{0.0, 8.0, 6.0, 2.0, 1.0}));
  EXPECT_EQ(_c14_previous_mean(std::vector<double>{3.0}, 39), std::vector<double>{0.0});
}

}  // namespace
}  // namespace verdel::internal
