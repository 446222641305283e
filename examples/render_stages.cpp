#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <span>
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

  template <class Sample>
  void write(const std::string& name, RowsView<const Sample> audio) const {
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

/// What the allocator is given and what it makes of it, [channels][frames] for each stem.
struct Allocation {
  StemMap models, endpoint09, endpoint10, stems;
  AudioArray residual;
};

void copy_rounded(std::span<const double> from, std::span<float> to) {
  std::ranges::transform(from, to.begin(), [](double v) { return static_cast<float>(v); });
}

void allocate_channel(const ChannelJob& job, std::size_t channel, const Machine& machine,
                      Allocation& result) {
  const std::size_t stems = job.taps.size(), frames = job.mix.size();
  auto room = AudioArray::uninitialised(stems + 1, frames);
  const PhaseJob phases = write_out_models(job, room.view());
  std::ranges::copy(phases.residual, result.residual.row(channel).begin());

  const SpectralTransform transform;
  const StopToken never_stopped;
  RenderScratch scratch(machine, stems, frames, 1);
  ChannelRender render(phases, transform, scratch, never_stopped);
  auto blended = AudioArray::uninitialised(stems, frames);
  PhaseRunner(render, 1, machine).run(blended.view());
  for (std::size_t i = 0; i < stems; ++i) {
    copy_rounded(phases.source_models[i], result.models[i].audio.row(channel));
    std::ranges::copy(render.signal_row(render.output09, i),
                      result.endpoint09[i].audio.row(channel).begin());
    std::ranges::copy(render.signal_row(render.output10, i),
                      result.endpoint10[i].audio.row(channel).begin());
    copy_rounded(blended.row(i), result.stems[i].audio.row(channel));
  }
}

Allocation allocate(const StemMap& taps, AudioView gain, AudioView mix, int sr,
                    const Machine& machine) {
  Allocation result;
  result.residual = AudioArray::uninitialised(mix.rows(), mix.columns());
  for (StemMap* stems : {&result.models, &result.endpoint09, &result.endpoint10, &result.stems}) {
    for (const auto& tap : taps) {
      stems->push_back({tap.name, StemArray::zeros(mix.rows(), mix.columns())});
    }
  }
  for (std::size_t channel = 0; channel < mix.rows(); ++channel) {
    ChannelJob job{.taps = {},
                   .gain = gain.row(channel),
                   .mix = mix.row(channel),
                   .sr = sr,
                   .stop = mix.columns(),
                   .progress = {}};
    for (const auto& tap : taps) job.taps.push_back(tap.audio.row(channel));
    allocate_channel(job, channel, machine, result);
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

  const AudioArray gain = shared_single_band_gain(whole, sum_of_taps(whole, taps), mix.sr);
  files.write("gain", gain.view());

  const Allocation allocation = allocate(taps, gain.view(), whole, mix.sr, machine);
  files.write_all(allocation.models, "model");
  files.write("residual", allocation.residual.view());
  files.write_all(allocation.endpoint09, "endpoint09");
  files.write_all(allocation.endpoint10, "endpoint10");
  files.write_all(allocation.stems, "stem");
  const AudioArray sum = sum_of(allocation.stems, whole.rows(), whole.columns());
  std::printf("%s: %zu stems; mix minus their sum %.1f dBFS, rounded each by itself\n", out.c_str(),
              taps.size(), levels_of_difference(whole, sum.view()).peak);
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
