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
#include "allocation/endpoint_rendering.hpp"
#include "delivery/audio_file_writing.hpp"
#include "gain/shared_gain.hpp"
#include "inputs/audio_loading.hpp"
#include "inputs/input_planning.hpp"
#include "signal/stem_sums.hpp"
#include "support/machine.hpp"

// Renders a project and writes down what a stem goes through on its way, as 32-bit float WAVs:
// OUT/mix.wav, gain.wav (factors), residual.wav, and for each stem OUT/NAME.tap.wav (aligned),
// NAME.model.wav, NAME.endpoint09.wav, NAME.endpoint10.wav, NAME.stem.wav. For pictures and for
// listening to what the stages do.
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

/// The model and the residual, and the endpoints' shares behind the models.
void take_endpoints(const ChannelJob& job, std::size_t channel, Allocation& result) {
  const SpectralTransform transform;
  ChannelSpectra spectra(job, transform);
  SourceScoring scoring(spectra, job.sr);
  EndpointRendering endpoints(spectra, scoring, transform);
  const std::size_t frames = spectra.extent().frames();
  std::size_t transformed = 0, taken = 0;
  for (std::size_t first = 0; first < frames; first += Block::kFrames) {
    const Block block{first, std::min(first + Block::kFrames, frames)};
    const std::size_t ahead = std::min(block.stop + SourceScoring::kAhead, frames);
    spectra.extend({transformed, ahead});
    transformed = ahead;
    scoring.score(block);
    endpoints.render(block);
    // A frame's first half overlaps those behind it.
    const std::size_t finished = block.stop == frames ? frames : block.stop - kFrameHops / 2;
    for (; taken < finished; ++taken) {
      const std::size_t at = taken * C14_HOP, count = spectra.extent().hop_samples(taken);
      for (std::size_t i = 0; i < job.stems(); ++i) {
        for (std::size_t n = 0; n < count; ++n) {
          const float model = result.models[i].audio.row(channel)[at + n];
          const auto& shares = endpoints.shares();
          result.endpoint09[i].audio.row(channel)[at + n] = model + shares.hop(2 * i, taken)[n];
          result.endpoint10[i].audio.row(channel)[at + n] = model + shares.hop(2 * i + 1, taken)[n];
        }
      }
    }
  }
}

void allocate_channel(const ChannelJob& job, std::size_t channel, Allocation& result) {
  const auto residual = result.residual.row(channel);
  std::ranges::copy(job.mix, residual.begin());
  for (std::size_t i = 0; i < job.stems(); ++i) {
    for (std::size_t n = 0; n < job.samples(); ++n) {
      const double model = static_cast<double>(job.taps[i][n]) * job.gain[n];
      residual[n] -= model;
      result.models[i].audio.row(channel)[n] = static_cast<float>(model);
    }
  }
  take_endpoints(job, channel, result);
  _render_transient_release_tail_channel_full(
      job, [&](std::size_t first, RowsView<const double> stems) {
        for (std::size_t i = 0; i < job.stems(); ++i) {
          copy_rounded(stems.row(i), result.stems[i].audio.row(channel).subspan(first));
        }
      });
}

Allocation allocate(const StemMap& taps, AudioView gain, AudioView mix, int sr) {
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
    allocate_channel(job, channel, result);
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

  const Allocation allocation = allocate(taps, gain.view(), whole, mix.sr);
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
