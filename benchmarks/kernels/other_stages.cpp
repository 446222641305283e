#include <benchmark/benchmark.h>

#include <cstddef>
#include <string>
#include <vector>

#include "alignment/lag_search.hpp"
#include "delivery/coordinated_float32.hpp"
#include "gain/gain_curves.hpp"
#include "gain/shared_gain.hpp"
#include "items.hpp"
#include "signal/arrays.hpp"
#include "signal/levels.hpp"

// What happens to the audio before the allocator and after it.
namespace verdel::internal {
namespace {

constexpr int kRate = 44100;
constexpr std::size_t kStems = 4, kChannels = 2;

template <class Sample = double>
Array2D<Sample> audio_of(std::size_t samples, std::size_t place) {
  auto audio = Array2D<Sample>::uninitialised(kChannels, samples);
  for (std::size_t c = 0; c < kChannels; ++c) fill_with_bursts(audio.row(c), place + c);
  return audio;
}

StemMap stems_of(std::size_t samples) {
  StemMap stems;
  for (std::size_t s = 0; s < kStems; ++s) {
    stems.push_back({"Stem " + std::to_string(s), audio_of<float>(samples, 2 * s)});
  }
  return stems;
}

void lag_of_tap(benchmark::State& state) {
  constexpr std::size_t kSamples = 60 * kRate;
  const AudioArray audio = audio_of(kSamples, 0);
  for (auto _ : state) benchmark::DoNotOptimize(find_lag(audio.row(0), audio.row(1), kRate));
  count_items(state, "sample", kSamples);
}
BENCHMARK(lag_of_tap)->Unit(benchmark::kMillisecond);

void gain_curve(benchmark::State& state) {
  constexpr std::size_t kSamples = 10 * kRate;
  const AudioArray audio = audio_of(kSamples, 0);
  const GainCurveSettings settings{.gw = 1323, .sw = 5293, .sr = kRate};
  std::vector<double> gain(audio.columns());
  for (auto _ : state) {
    ls_gain(audio.row(0), audio.row(1), settings, gain);
    benchmark::DoNotOptimize(gain.data());
  }
  count_items(state, "sample", kSamples);
}
BENCHMARK(gain_curve)->Unit(benchmark::kMillisecond);

/// Per sample of all stems and channels.
void shared_gain(benchmark::State& state) {
  constexpr std::size_t kSamples = 5 * kRate;
  const AudioArray mix = audio_of(kSamples, 2 * kStems);
  const StemMap taps = stems_of(kSamples);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        shared_single_band_gain(mix.view(), sum_of_taps(mix.view(), taps), kRate, 30.0, 120.0));
  }
  count_items(state, "sample", kStems * mix.size());
}
BENCHMARK(shared_gain)->Unit(benchmark::kMillisecond);

/// Per sample of all stems and channels.
void float32_delivery(benchmark::State& state) {
  constexpr std::size_t kSamples = 5 * kRate;
  const AudioArray stems = [] {
    auto rows = AudioArray::uninitialised(kStems, kSamples);
    for (std::size_t s = 0; s < kStems; ++s) fill_with_bursts(rows.row(s), s);
    return rows;
  }();
  auto mix = AudioArray::zeros(1, kSamples);
  for (std::size_t s = 0; s < kStems; ++s) {
    for (std::size_t i = 0; i < kSamples; ++i) mix.flat()[i] += stems.row(s)[i];
  }
  const std::vector<std::string> names(kStems, "Stem");
  for (auto _ : state) {
    CoordinatedStems rounded(names, mix.view(), -140.0);
    rounded.take(0, 0, stems.view());
    benchmark::DoNotOptimize(rounded.finish());
  }
  count_items(state, "sample", kStems * mix.size());
}
BENCHMARK(float32_delivery)->Unit(benchmark::kMillisecond);

void peak_and_rms(benchmark::State& state) {
  const AudioArray audio = audio_of(kRate, 0);
  for (auto _ : state) benchmark::DoNotOptimize(levels(audio.view()));
  count_items(state, "sample", audio.size());
}
BENCHMARK(peak_and_rms);

}  // namespace
}  // namespace verdel::internal
