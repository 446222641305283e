#include <benchmark/benchmark.h>

#include <cmath>
#include <cstddef>
#include <string>
#include <vector>
#include <verdel/verdel.hpp>

#include "items.hpp"

// A render from arrays to arrays, through the header that applications use: what a song costs them
// without files, and what a caller's progress callback may find out.
namespace verdel::internal {
namespace {

constexpr int kRate = 44100;
constexpr std::size_t kChannels = 2;

/// Taps, and a mix that squeezes their sum, in memory of their own.
class Song {
 public:
  Song(std::size_t stems, std::size_t samples)
      : mix_(kChannels, std::vector<double>(samples)), taps_(stems, mix_) {
    for (std::size_t stem = 0; stem < stems; ++stem) {
      for (std::size_t c = 0; c < kChannels; ++c) {
        fill_with_bursts(std::span<double>(taps_[stem][c]), kChannels * stem + c);
        for (std::size_t i = 0; i < samples; ++i) mix_[c][i] += taps_[stem][c][i];
      }
    }
    for (auto& channel : mix_) {
      for (double& sample : channel) sample = std::tanh(sample);
    }
  }

  RenderRequest request() const {
    RenderRequest request{.sample_rate = kRate, .mix = views_of(mix_), .taps = {}};
    for (std::size_t stem = 0; stem < taps_.size(); ++stem) {
      request.taps.push_back({std::to_string(stem), views_of(taps_[stem])});
    }
    return request;
  }

 private:
  using Channels = std::vector<std::vector<double>>;

  static std::vector<ChannelView> views_of(const Channels& channels) {
    return {channels.begin(), channels.end()};
  }

  Channels mix_;
  std::vector<Channels> taps_;
};

/// Arguments: processors, seconds of song. Per sample of all stems and channels.
void whole_render(benchmark::State& state) {
  constexpr std::size_t kStems = 4;
  const std::size_t samples = static_cast<std::size_t>(state.range(1)) * kRate;
  const Song song(kStems, samples);
  RenderRequest request = song.request();
  request.processors = static_cast<std::size_t>(state.range(0));
  double missing = 1.0;
  request.progress = [&](double done) {
    missing = 1.0 - done;
    return true;
  };
  double null_peak = 0.0;
  for (auto _ : state) null_peak = render(request).null_peak;
  state.counters["null, dBFS"] = null_peak;
  if (missing > 0.0) state.SkipWithError("the progress did not reach its end");
  count_items(state, "sample", kStems * kChannels * samples);
}
BENCHMARK(whole_render)
    ->ArgsProduct({{1, 2}, {10, 60}})
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();

}  // namespace
}  // namespace verdel::internal
