#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "alignment/tap_alignment.hpp"
#include "allocation/channel_render.hpp"
#include "allocation/phase_runner.hpp"
#include "delivery/audio_file_writing.hpp"
#include "gain/shared_gain.hpp"
#include "inputs/audio_loading.hpp"
#include "inputs/input_planning.hpp"
#include "signal/levels.hpp"
#include "signal/stem_sums.hpp"
#include "support/machine.hpp"

// Renders a project and writes down what a stem goes through on its way, as 32-bit float WAVs:
// OUT/mix.wav, gain.wav (factors), residual.wav, and for each stem OUT/NAME.tap.wav (aligned),
// NAME.model.wav, NAME.endpoint09.wav, NAME.endpoint10.wav, NAME.stem.wav. For pictures and for
// listening to what the stages do; a song of minutes takes gigabytes of scratch space.
namespace verdel::internal {
namespace {

namespace fs = std::filesystem;

class StageFiles {
 public:
  StageFiles(fs::path folder, int sr) : folder_(std::move(folder)), sr_(sr) {
    fs::create_directories(folder_);
  }

  void write(const std::string& name, AudioView audio) const {
    const AudioFileFormat format{.sr = sr_, .channels = audio.rows(), .frames = audio.columns()};
    AudioFileWriter file((folder_ / (name + ".wav")).string(), format);
    file.write(audio);
    file.commit();
  }
  void write_all(const StemMap& stems, const std::string& stage) const {
    for (const auto& stem : stems) write(stem.name + "." + stage, stem.audio.view());
  }

 private:
  fs::path folder_;
  int sr_;
};

/// The allocator's results, [channels][frames] for each stem.
struct Allocation {
  StemMap endpoint09, endpoint10, stems;
};

void allocate_channel(const StemMap& models, const AudioArray& residual, std::size_t channel,
                      int sr, const Machine& machine, Allocation& result) {
  ChannelJob job{.source_models = {},
                 .residual = residual.row(channel),
                 .sr = sr,
                 .stop = residual.columns(),
                 .progress = {}};
  for (const auto& model : models) job.source_models.push_back(model.audio.row(channel));

  const SpectralTransform transform;
  const StopToken never_stopped;
  RenderScratch scratch(machine, models.size(), residual.columns(), 1);
  ChannelRender render(job, transform, scratch, never_stopped);
  auto blended = AudioArray::uninitialised(models.size(), residual.columns());
  PhaseRunner(render, 1, machine).run(blended.view());
  for (std::size_t i = 0; i < models.size(); ++i) {
    std::ranges::copy(render.signal_row(render.output09, i),
                      result.endpoint09[i].audio.row(channel).begin());
    std::ranges::copy(render.signal_row(render.output10, i),
                      result.endpoint10[i].audio.row(channel).begin());
    std::ranges::copy(blended.row(i), result.stems[i].audio.row(channel).begin());
  }
}

Allocation allocate(const StemMap& models, const AudioArray& residual, int sr,
                    const Machine& machine) {
  Allocation result;
  for (StemMap* stems : {&result.endpoint09, &result.endpoint10, &result.stems}) {
    for (const auto& model : models) {
      stems->push_back({model.name, AudioArray::zeros(residual.rows(), residual.columns())});
    }
  }
  for (std::size_t channel = 0; channel < residual.rows(); ++channel) {
    allocate_channel(models, residual, channel, sr, machine, result);
  }
  return result;
}

void render_stages(const fs::path& project, const fs::path& out) {
  const Machine machine = system_machine();
  const LoadedAudio mix = load((project / "mix" / "mix.wav").string());
  const AudioView whole = mix.audio.view();
  const StageFiles files(out, mix.sr);
  files.write("mix", whole);

  StemMap taps = load_stem_inputs(plan_stem_inputs((project / "taps").string()),
                                  {.mix_sr = mix.sr,
                                   .mix_channels = whole.rows(),
                                   .mix_frames = whole.columns(),
                                   .any_channels = true},
                                  [](std::string_view) {});
  align_taps_to_mix(whole, taps, mix.sr, machine);
  files.write_all(taps, "tap");

  SharedGainModel fitted = shared_single_band_model(whole, taps, mix.sr);
  files.write("gain", fitted.gain.view());
  files.write_all(fitted.models, "model");

  const AudioArray residual = difference_from(whole, std::move(fitted.model_sum));
  files.write("residual", residual.view());

  const Allocation allocation = allocate(fitted.models, residual, mix.sr, machine);
  files.write_all(allocation.endpoint09, "endpoint09");
  files.write_all(allocation.endpoint10, "endpoint10");
  files.write_all(allocation.stems, "stem");
  const AudioArray rest =
      difference_from(whole, sum_of(allocation.stems, whole.rows(), whole.columns()));
  std::printf("%s: %zu stems; mix minus their sum %.1f dBFS before the delivery's rounding\n",
              out.c_str(), taps.size(), levels(rest.view()).peak);
}

}  // namespace
}  // namespace verdel::internal

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: render_stages PROJECT OUT\n");
    return 2;
  }
  try {
    verdel::internal::render_stages(argv[1], argv[2]);
    return EXIT_SUCCESS;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "render_stages: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
