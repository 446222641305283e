#include "chain/filter_fit.hpp"

#include <gtest/gtest.h>

#include <Eigen/QR>
#include <cmath>
#include <numbers>

#include "support/noise.hpp"

namespace verdel::internal {
namespace {

// The sparse equations of weighted, overlapping spectra against dense ones in the time domain: both
// are least squares of the same short signal, so they find the same filter.
TEST(FilterFit, FindsWhatLeastSquaresOfTheSamplesFind) {
  constexpr int kRate = 2000, kTaps = 4;
  constexpr std::size_t kFrames = 4 * kRate;
  const auto source = testing::noise(kFrames, 1), doubt = testing::noise(kFrames, 2);
  Eigen::MatrixXd past = Eigen::MatrixXd::Zero(kFrames, kTaps);
  Eigen::VectorXd target(kFrames);
  auto mix = AudioArray::uninitialised(1, kFrames);
  auto x = Heard::uninitialised(1, kFrames);
  for (std::size_t i = 0; i < kFrames; ++i) {
    const auto at = [&](std::size_t delay) { return i < delay ? 0.0 : source[i - delay]; };
    x.data()[i] = static_cast<float>(source[i]);
    mix.data()[i] = at(0) + 0.6 * at(1) - 0.3 * at(3) + 0.02 * doubt[i];
    target[static_cast<Eigen::Index>(i)] = mix.data()[i];
    for (std::size_t delay = 0; delay < kTaps; ++delay) {
      past(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(delay)) = at(delay);
    }
  }
  const Eigen::VectorXd direct = past.householderQr().solve(target);

  const ChainJob job{.mix = mix.view(), .sr = kRate};
  const GainCurve unity(job.mix, kFittingGain, job);
  const Heard silence = Heard::zeros(1, kFrames);
  FilterFit fit(job, x.view(), {.others = silence.view(), .gain = &unity});
  for (int step = 0; step < 3; ++step) fit.step(x.view());
  for (std::size_t bin = 0; bin < fit.basis().bins(); ++bin) {
    const double turn = -2.0 * std::numbers::pi * fit.basis().frequencies()[bin] / kRate;
    std::complex<double> expected;
    for (int delay = 0; delay < kTaps; ++delay) expected += std::polar(direct[delay], turn * delay);
    EXPECT_LT(std::abs(fit.responses()[0][bin] - expected), 0.03) << bin;
  }
}

}  // namespace
}  // namespace verdel::internal
