#include "gain/band_masks.hpp"

#include <gtest/gtest.h>

namespace verdel::internal {
namespace {

TEST(StreamedBandMasks, AddUpToOneAtEveryBin) {
  struct Case {
    std::size_t nfft;
    double sr;
    std::size_t bands;
  };
  // With 64 points several centres lie between the same two bins.
  for (const Case c : {Case{64, 44100.0, 128}, Case{16384, 44100.0, 128}, Case{1024, 8000.0, 2},
                       Case{2, 96000.0, 3}}) {
    const StreamedBandMasks bank(c.nfft, c.sr, c.bands);
    ASSERT_EQ(bank.size(), c.bands);
    EXPECT_EQ(bank.centers().back(), c.sr / 2.0);
    std::vector<double> sum(c.nfft / 2 + 1, 0.0);
    for (const auto mask : bank) {
      ASSERT_EQ(mask.size(), sum.size());
      for (std::size_t bin = 0; bin < sum.size(); ++bin) sum[bin] += mask[bin];
    }
    for (const double value : sum) EXPECT_NEAR(value, 1.0, 1e-13) << c.nfft << " " << c.bands;
  }
}

TEST(StreamedBandMasks, CrossoversAreRaisedCosines) {
  // Bins stand 1 Hz apart and the centres at 40, 160 and 640 Hz, each on a bin.
  const StreamedBandMasks bank(1280, 1280.0, 3);
  const auto low = bank.raw_mask(0), middle = bank.raw_mask(1), high = bank.raw_mask(2);
  EXPECT_NEAR(bank.centers()[1], 160.0, 1e-9);
  for (const std::size_t bin : {0u, 10u, 40u}) {
    EXPECT_EQ(low[bin], 1.0);
    EXPECT_EQ(middle[bin], 0.0);
    EXPECT_EQ(bank[0][bin], 1.0);
  }
  EXPECT_NEAR(low[100], 0.5, 1e-12);
  EXPECT_NEAR(middle[70], 0.14644660940672624, 1e-12);  // sin^2 of a quarter of the way
  EXPECT_NEAR(middle[160], 1.0, 1e-12);
  EXPECT_NEAR(high[400], 0.5, 1e-12);
  EXPECT_EQ(high[640], 1.0);
  for (std::size_t bin = 161; bin <= 640; ++bin) {
    EXPECT_GT(low[bin], 0.0);
    EXPECT_LT(low[bin], 1e-32);
  }
}

}  // namespace
}  // namespace verdel::internal
