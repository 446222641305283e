#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

#include "allocation/channel_spectra.hpp"
#include "allocation/endpoint_rendering.hpp"
#include "allocation/source_scoring.hpp"
#include "allocation/stem_onsets.hpp"
#include "allocation/stem_projection.hpp"
#include "allocation/tail_candidates.hpp"
#include "items.hpp"

// The allocator's steps, on one block of three stems in the middle of a song. Times are per cell of
// the block's spectra, all stems counted, and include the transforms that a step makes.
namespace verdel::internal {
namespace {

constexpr std::size_t kStems = 3, kSamples = 5 * 44100;
constexpr int kRate = 44100;
constexpr Block kBlock{512, 512 + Block::kFrames};

/// A render whose steps have all seen the song up to the end of kBlock.
struct HalfRender {
  HalfRender() {
    for (std::size_t s = 0; s < kStems; ++s) fill_with_bursts(taps.row(s), s);
    fill_with_bursts(mix.row(0), kStems);
    for (std::size_t s = 0; s < kStems; ++s) job.taps.emplace_back(taps.row(s));
    job.gain = gain;
    job.mix = mix.row(0);
    job.sr = kRate;
    job.stop = kSamples;
    spectra.emplace(job, transform);
    scoring.emplace(*spectra, kRate);
    endpoints.emplace(*spectra, *scoring, transform);
    onsets.emplace(scoring->support(), kStems, kRate);
    candidates.emplace(scoring->support(), *onsets, kStems, spectra->extent().frames(), kRate);
    projection.emplace(*spectra, *endpoints, transform);
    for (std::size_t first = 0; first < kBlock.stop; first += Block::kFrames) {
      const Block block{first, first + Block::kFrames};
      spectra->extend(
          {first == 0 ? 0 : first + SourceScoring::kAhead, block.stop + SourceScoring::kAhead});
      scoring->score(block);
      endpoints->render(block);
      onsets->find(block);
    }
  }

  Array2D<float> taps = Array2D<float>::uninitialised(kStems, kSamples);
  AudioArray mix = AudioArray::uninitialised(1, kSamples);
  std::vector<double> gain = std::vector<double>(kSamples, 1.0);
  ChannelJob job;
  SpectralTransform transform;
  std::optional<ChannelSpectra> spectra;
  std::optional<SourceScoring> scoring;
  std::optional<EndpointRendering> endpoints;
  std::optional<StemOnsets> onsets;
  std::optional<TailCandidates> candidates;
  std::optional<StemProjection> projection;
};

/// Times step(render, block), which may be done again on the same block.
void time_step(benchmark::State& state,
               const std::function<void(HalfRender&, const Block&)>& step) {
  HalfRender render;
  for (auto _ : state) {
    step(render, kBlock);
    benchmark::ClobberMemory();
  }
  count_items(state, "cell", kStems * kBlock.length() * C14_BINS);
}

void spectra(benchmark::State& state) {
  time_step(state, [](HalfRender& render, const Block& block) { render.spectra->extend(block); });
}
BENCHMARK(spectra);

void scoring(benchmark::State& state) {
  time_step(state, [](HalfRender& render, const Block& block) { render.scoring->score(block); });
}
BENCHMARK(scoring);

void endpoints(benchmark::State& state) {
  time_step(state, [](HalfRender& render, const Block& block) { render.endpoints->render(block); });
}
BENCHMARK(endpoints);

void onsets(benchmark::State& state) {
  time_step(state, [](HalfRender& render, const Block& block) { render.onsets->find(block); });
}
BENCHMARK(onsets);

void candidates(benchmark::State& state) {
  time_step(state, [](HalfRender& render, const Block& block) {
    render.candidates->find(
        {block.first - TailCandidates::kAhead, block.stop - TailCandidates::kAhead});
  });
}
BENCHMARK(candidates);

void projection(benchmark::State& state) {
  time_step(state, [](HalfRender& render, const Block& block) {
    for (std::size_t frame = block.first; frame < block.stop; ++frame) {
      render.projection->project(frame - TailCandidates::kAhead);
    }
  });
}
BENCHMARK(projection);

}  // namespace
}  // namespace verdel::internal
