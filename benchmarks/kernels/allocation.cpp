#include <benchmark/benchmark.h>

#include <cstddef>
#include <span>
#include <vector>

#include "allocation/channel_render.hpp"
#include "allocation/onset_history.hpp"
#include "allocation/phase_runner.hpp"
#include "allocation/phases.hpp"
#include "allocation/render_scratch.hpp"
#include "allocation/spectral_transform.hpp"
#include "items.hpp"
#include "support/machine.hpp"

// The allocator's phases, on one stem of a render of some seconds. Times are per cell of its
// spectrum and include the transforms that a phase makes.
namespace verdel::internal {
namespace {

constexpr std::size_t kStems = 3, kSamples = 5 * 44100;
constexpr int kRate = 44100;

using Step = void (PhaseRunner::*)();
constexpr Step kSteps[] = {&PhaseRunner::prepare_residual,     &PhaseRunner::score_sources,
                           &PhaseRunner::render_all_endpoints, &PhaseRunner::project_stems,
                           &PhaseRunner::find_all_onsets,      &PhaseRunner::build_whole_gate};

/// A render that stands in front of one of its phases, on pages that have been touched.
class HalfRender {
 public:
  explicit HalfRender(std::size_t steps)
      : models_(Array2D<double>::uninitialised(kStems, kSamples)),
        residual_(Array2D<double>::uninitialised(1, kSamples)),
        job_(make_job()),
        scratch_(machine_, kStems, kSamples, 1),
        render_(job_, transform_, scratch_, stop_),
        runner_(render_, 1, machine_) {
    for (std::size_t step = 0; step < steps; ++step) (runner_.*kSteps[step])();
  }

  ChannelRender& operator*() { return render_; }
  ChannelRender* operator->() { return &render_; }

 private:
  PhaseJob make_job() {
    for (std::size_t s = 0; s < kStems; ++s) fill_with_bursts(models_.row(s), s);
    fill_with_bursts(residual_.row(0), kStems);
    PhaseJob job;
    for (std::size_t s = 0; s < kStems; ++s) job.source_models.emplace_back(models_.row(s));
    job.residual = residual_.row(0);
    job.sr = kRate;
    job.stop = kSamples;
    return job;
  }

  Machine machine_ = system_machine();
  StopToken stop_;
  SpectralTransform transform_;
  Array2D<double> models_, residual_;
  PhaseJob job_;
  RenderScratch scratch_;
  ChannelRender render_;
  PhaseRunner runner_;
};

/// Times work(render) on a render that has made so many steps.
template <class Work>
void time_on_render(benchmark::State& state, std::size_t steps, Work work) {
  HalfRender render(steps);
  for (auto _ : state) {
    work(*render);
    benchmark::ClobberMemory();
  }
  count_items(state, "cell", render->grid.cells());
}

void spectrum_of_signal(benchmark::State& state) {
  time_on_render(state, 1, [](ChannelRender& render) {
    _c14_transform(render.transform, render.job.residual, render.grid, render.residual_spectrum,
                   render.stop);
  });
}
BENCHMARK(spectrum_of_signal);

void smoothed_power(benchmark::State& state) {
  time_on_render(state, 1, [](ChannelRender& render) {
    for (std::size_t tile = 0; tile < CellGrid::kTiles; ++tile) {
      smooth_power(render.grid, tile, render.residual_spectrum.data(),
                   render.residual_power.data());
    }
  });
}
BENCHMARK(smoothed_power);

void scoring(benchmark::State& state) {
  time_on_render(state, 1, [](ChannelRender& render) {
    const auto spectrum =
        render.scratch.scoring_spectrum(0).as<float>(2 * render.grid.stored_cells());
    score_source(render, 0, spectrum);
  });
}
BENCHMARK(scoring);

void endpoints(benchmark::State& state) {
  time_on_render(state, 3, [](ChannelRender& render) { render_endpoints(render, 0); });
}
BENCHMARK(endpoints);

void projection(benchmark::State& state) {
  time_on_render(state, 3, [](ChannelRender& render) { project_stem(render, 0); });
}
BENCHMARK(projection);

void onsets(benchmark::State& state) {
  time_on_render(state, 5, [](ChannelRender& render) { find_onsets(render, 0); });
}
BENCHMARK(onsets);

/// The look back alone, on one tile in which every frame is an onset, or none.
void look_back(benchmark::State& state) {
  constexpr std::size_t kFrames = 1000, kColumns = CellGrid::kTileBins;
  std::vector<float> current(kFrames * kColumns), past(kColumns), gated(kColumns);
  const std::vector<double> onset(kFrames, static_cast<double>(state.range(0)));
  fill_with_bursts(std::span(current), 0);
  for (float& value : current) value *= value;
  const HistoryDecays decays = history_decays(kRate);
  for (auto _ : state) {
    for (std::size_t t = 0; t < kFrames; ++t) {
      _c14_history(current.data(), onset, kColumns, decays, t, past.data(), gated.data());
    }
    benchmark::ClobberMemory();
  }
  count_items(state, "cell", current.size());
}
BENCHMARK(look_back)->ArgName("onset")->Arg(0)->Arg(1);

/// Of all stems, with the look back and the look ahead.
void gate(benchmark::State& state) {
  time_on_render(state, 6, [](ChannelRender& render) {
    for (std::size_t tile = 0; tile < CellGrid::kTiles; ++tile) build_gate(render, tile);
  });
}
BENCHMARK(gate);

void blend(benchmark::State& state) {
  std::vector<double> rendered(kSamples);
  time_on_render(state, 6, [&rendered](ChannelRender& render) { blend_stem(render, 0, rendered); });
}
BENCHMARK(blend);

}  // namespace
}  // namespace verdel::internal
