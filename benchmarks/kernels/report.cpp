#include <benchmark/benchmark.h>

#include <complex>
#include <cstddef>
#include <span>
#include <type_traits>
#include <vector>

#include "contamination/bands.hpp"
#include "contamination/envelopes.hpp"
#include "contamination/figures.hpp"
#include "contamination/gain.hpp"
#include "contamination/slices.hpp"
#include "contamination/windows.hpp"
#include "items.hpp"
#include "signal/arrays.hpp"

// The report on stems: one stem and channel at 44.1 kHz.
namespace verdel::internal {
namespace {

constexpr int kRate = 44100;
constexpr std::size_t kBands = 128;
constexpr double kWindowSeconds = 0.05;

template <class Value>
std::vector<Value> bursts(std::size_t count, std::size_t place) {
  using Real = std::conditional_t<std::is_floating_point_v<Value>, Value, float>;
  std::vector<Value> values(count);
  fill_with_bursts(
      std::span(reinterpret_cast<Real*>(values.data()), count * sizeof(Value) / sizeof(Real)),
      place);
  return values;
}

/// Every band out of a slice's spectrum and back into one; per bin of the slice.
void bands(benchmark::State& state) {
  const SlicePlan plan = plan_slices(60 * kRate, kRate, 1U << 22);
  const BandLayout layout = lay_out_bands(plan.length, kRate, kBands, false);
  const auto spectrum = bursts<std::complex<float>>(layout.bins(), 0);
  std::vector<std::complex<float>> band_spectrum(layout.bins()), sum(layout.bins());
  for (auto _ : state) {
    for (const ReportBand& band : layout.bands) {
      const auto room =
          std::span(band_spectrum).first(band.complex() ? band.points : band.points / 2 + 1);
      take_band(layout, band, spectrum, room);
      add_band(layout, band, room, sum);
    }
    benchmark::ClobberMemory();
  }
  count_items(state, "bin", layout.bins());
}
BENCHMARK(bands);

/// The argument is the window in grid points.
void windows(benchmark::State& state) {
  const auto window = GridWindow::over_samples(static_cast<double>(state.range(0)) + 0.5);
  constexpr std::size_t kPoints = 20000;
  const auto padded = bursts<float>(kPoints + 2 * window.padding(), 0);
  std::vector<float> whole(kPoints), ends(kPoints);
  std::vector<double> scratch;
  for (auto _ : state) {
    window_sums(padded, window, scratch, whole, ends);
    benchmark::ClobberMemory();
  }
  count_items(state, "point", kPoints);
}
BENCHMARK(windows)->Arg(15)->Arg(60)->Arg(2205);

template <class Value>
void local_gain(benchmark::State& state) {
  constexpr std::size_t kPoints = 20000;
  const GridExtent extent{.step = 8.0, .length = 8 * kPoints, .first = 0, .stop = 8 * kPoints};
  const auto window = GridWindow::over_samples(kWindowSeconds * kRate / extent.step);
  const auto tap = bursts<Value>(kPoints, 0), stem = bursts<Value>(kPoints, 1);
  auto rest = stem;
  ComparisonScratch scratch;
  for (auto _ : state) {
    rest = stem;
    benchmark::DoNotOptimize(
        remove_explained(extent, window, std::span(tap), std::span(rest), scratch));
    benchmark::ClobberMemory();
  }
  count_items(state, "point", kPoints);
}
BENCHMARK(local_gain<float>);
BENCHMARK(local_gain<std::complex<float>>);

void envelopes(benchmark::State& state) {
  constexpr std::size_t kSamples = 10 * kRate, kCell = 16;
  auto audio = StemArray::uninitialised(2, kSamples);
  for (std::size_t c = 0; c < 2; ++c) fill_with_bursts(audio.row(c), c);
  std::vector<float> cells((kSamples + kCell - 1) / kCell);
  for (auto _ : state) {
    mean_square_cells(StemView(audio.view()), kCell, cells);
    benchmark::DoNotOptimize(envelope_curve(cells, 0.02 * kRate / kCell));
  }
  count_items(state, "sample", audio.size());
}
BENCHMARK(envelopes);

void whole_report(benchmark::State& state) {
  constexpr std::size_t kSamples = 20 * kRate;
  auto stem = StemArray::uninitialised(1, kSamples), tap = StemArray::uninitialised(1, kSamples);
  fill_with_bursts(stem.row(0), 0);
  fill_with_bursts(tap.row(0), 1);
  const ReportJob job{.est = {{"Stem", stem.view()}},
                      .taps = {{"Stem", tap.view()}},
                      .sr = kRate,
                      .n_bands = kBands,
                      .nfft = 1U << 20};
  for (auto _ : state) benchmark::DoNotOptimize(measure_contamination(job));
  count_items(state, "sample", kSamples);
}
BENCHMARK(whole_report)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace verdel::internal
