#include "delivery/coordinated_float32.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <optional>
#include <random>

#include "support/errors.hpp"
#include "support/files.hpp"

namespace verdel::internal {
namespace {

// Stems with silence, equal magnitudes and opposite signs among them, and a mix that is their sum
// but for the last bits.
struct Song {
  StemMap stems;
  AudioArray mix;
};

Song song(std::size_t stems, std::size_t channels, std::size_t samples, double level) {
  std::mt19937 random(static_cast<unsigned>(stems * 1000 + channels));
  std::uniform_real_distribution<double> value(-level, level);
  std::uniform_int_distribution<int> choice(0, 9);
  Song s{{}, AudioArray::zeros(channels, samples)};
  for (std::size_t i = 0; i < stems; ++i) {
    s.stems.push_back({"stem", AudioArray::zeros(channels, samples)});
    for (std::size_t k = 0; k < channels * samples; ++k) {
      const int kind = choice(random);
      double x = kind == 0 ? 0.0 : value(random);
      if (i > 0 && kind == 1) x = -s.stems[i - 1].audio.flat()[k];
      if (k % 50 == 0) x = 0.0;
      s.stems[i].audio.flat()[k] = x;
      s.mix.flat()[k] += x;
    }
  }
  for (auto& x : s.mix.flat()) x += 1e-8 * value(random);
  return s;
}

// The whole method with every array written out; nothing if the bound is exceeded.
std::optional<DeliveredStems> plain_delivery(const Song& s, double threshold) {
  const std::size_t size = s.mix.size();
  DeliveredStems delivered;
  for (const auto& stem : s.stems) {
    delivered.push_back({stem.name, Array2D<float>::zeros(s.mix.rows(), s.mix.columns())});
    for (std::size_t k = 0; k < size; ++k) {
      delivered.back().audio.flat()[k] = static_cast<float>(stem.audio.flat()[k]);
    }
  }
  if (threshold > -140.0) return delivered;
  std::vector<double> residual(size);
  double largest = 0.0, peak = 0.0, step = 0.0;
  for (std::size_t k = 0; k < size; ++k) {
    double total = 0.0;
    for (const auto& stem : delivered) total += static_cast<double>(stem.audio.flat()[k]);
    residual[k] = s.mix.flat()[k] - total;
    largest = std::max(largest, std::abs(residual[k]));
    peak = std::max(peak, std::abs(s.mix.flat()[k]));
  }
  if (largest < std::pow(10.0, threshold / 20.0)) return delivered;
  for (std::size_t k = 0; k < size; ++k) {
    std::size_t owner = 0;
    for (std::size_t i = 1; i < delivered.size(); ++i) {
      if (std::abs(delivered[i].audio.flat()[k]) > std::abs(delivered[owner].audio.flat()[k])) {
        owner = i;
      }
    }
    float& sample = delivered[owner].audio.flat()[k];
    const double before = static_cast<double>(sample);
    sample = static_cast<float>(before + residual[k]);
    step = std::max(step, std::abs(static_cast<double>(sample) - before));
  }
  if (step > 8.0 * 0x1p-23 * std::max(peak, 1.0)) return std::nullopt;
  return delivered;
}

TEST(CoordinatedFloat32, EqualsTheWholeArrayMethod) {
  for (const std::size_t stems : {1u, 2u, 9u}) {
    for (const std::size_t channels : {1u, 3u}) {
      for (const std::size_t samples : {0u, 1u, 4095u, 9000u}) {
        const Song s = song(stems, channels, samples, 1.5);
        for (const double threshold : {-120.0, -139.99, -140.0, -300.0}) {
          const auto expected = plain_delivery(s, threshold);
          ASSERT_TRUE(expected);
          const auto actual =
              _coordinated_float32_delivery(views_of(s.stems), s.mix.view(), threshold);
          ASSERT_EQ(actual.size(), stems);
          for (std::size_t i = 0; i < stems; ++i) {
            for (std::size_t k = 0; k < s.mix.size(); ++k) {
              ASSERT_EQ(std::bit_cast<std::uint32_t>(actual[i].audio.flat()[k]),
                        std::bit_cast<std::uint32_t>((*expected)[i].audio.flat()[k]))
                  << stems << "x" << channels << "x" << samples << " at " << threshold;
            }
          }
        }
      }
    }
  }
}

// What is left is half a unit in the last place of the loudest stem at that sample: 2^-31 for
// values below 2^-6, 2^-25 below 1 and so on.
TEST(CoordinatedFloat32, NullInDecibels) {
  for (const auto& [level, bound] :
       {std::pair{0.01, -186.6}, {0.4, -156.5}, {0.99, -150.5}, {1.99, -144.4}, {3.99, -138.4}}) {
    for (const std::size_t stems : {1u, 2u, 32u}) {
      const Song s = song(stems, 2, 3000, level);
      const auto delivered = _coordinated_float32_delivery(views_of(s.stems), s.mix.view(), -200.0);
      double peak = 0.0;
      for (std::size_t k = 0; k < s.mix.size(); ++k) {
        double sum = 0.0;
        for (const auto& stem : delivered) sum += static_cast<double>(stem.audio.flat()[k]);
        peak = std::max(peak, std::abs(s.mix.flat()[k] - sum));
      }
      EXPECT_LE(20.0 * std::log10(peak), bound) << stems << " stems, level " << level;
    }
  }
}

TEST(CoordinatedFloat32, ThresholdsAndBound) {
  const double target = std::pow(10.0, -140.0 / 20.0);
  struct Case {
    const char* name;
    double stem, mix, threshold, delivered;  // NaN where the delivery has to fail
  };
  constexpr double kFails = std::numeric_limits<double>::quiet_NaN();
  const Case kCases[] = {
      {"below the target", 0.0, std::nextafter(target, 0.0), -140.0, 0.0},
      {"at the target", 0.0, target, -140.0, static_cast<double>(static_cast<float>(target))},
      {"just above -140 dB", 0.25, 0.5, -139.99, 0.25},
      {"at the bound of a low mix", 0.5, 0.5 + 0x1p-20, -140.0, 0.5 + 0x1p-20},
      {"above the bound of a low mix", 0.5, 0.5 + 0x1p-19, -140.0, kFails},
      {"within the bound of a loud mix", 4.0, 4.0 + 0x1p-18, -140.0, 4.0 + 0x1p-18},
      {"above the bound of a loud mix", 4.0, 4.0 + 0x1p-17, -140.0, kFails},
      {"not a number", kFails, 0.5, -140.0, kFails},
      {"too large for a float", 1e39, 1e39, -140.0, kFails}};
  for (const Case& c : kCases) {
    const AudioView mix(&c.mix, 1, 1, 1);
    const StemViews stems{{"a", AudioView(&c.stem, 1, 1, 1)}};
    const std::string failure = testing::failure_of<RuntimeError>([&] {
      const auto delivered = _coordinated_float32_delivery(stems, mix, c.threshold);
      EXPECT_EQ(static_cast<double>(delivered[0].audio.flat()[0]), c.delivered) << c.name;
    });
    EXPECT_EQ(failure, std::isnan(c.delivered)
                           ? "coordinated FLOAT32 delivery exceeded its rounding-only bound"
                           : "")
        << c.name;
  }
  const double sample = 0.0;
  const AudioView one(&sample, 1, 1, 1);
  EXPECT_THROW(_coordinated_float32_delivery(StemViews(65537, {"a", one}), one, -140.0),
               ValueError);
}

}  // namespace
}  // namespace verdel::internal
