#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>

#include "allocation/phase_runner.hpp"
#include "gain/shared_gain.hpp"
#include "inputs/audio_loading.hpp"

// The stored arrays of a small song against those of an independent implementation.
namespace verdel {
namespace {

const std::string kFolder = std::string(VERDEL_TEST_DATA) + "/golden/short/";

struct Pick {
  std::string array, stem;
  std::size_t place, frame;
  double value;
};

// The picks of each phase. In phase 2 a place is a sample and there is no frame.
std::map<int, std::vector<Pick>> read_picks() {
  std::map<int, std::vector<Pick>> picks;
  std::ifstream file(kFolder + "phases.csv");
  std::string line;
  std::getline(file, line);
  while (std::getline(file, line)) {
    std::stringstream fields(line);
    std::string phase, array, stem, place, frame, value;
    for (auto* field : {&phase, &array, &stem, &place, &frame, &value}) {
      std::getline(fields, *field, ',');
    }
    picks[std::stoi(phase)].push_back(
        {array, stem, std::stoul(place), frame.empty() ? 0 : std::stoul(frame), std::stod(value)});
  }
  return picks;
}

struct Song {
  LoadedAudio mix = load(kFolder + "mix/mix.flac");
  StemMap taps = load_stem_inputs({.folder = kFolder + "taps",
                                   .mix_sr = mix.sr,
                                   .mix_channels = mix.audio.rows(),
                                   .mix_frames = mix.audio.columns()},
                                  [](std::string_view) {});
  SharedGainModel model = shared_single_band_model(mix.audio.view(), taps, mix.sr);
};

TEST(GoldenPhases, StoredArraysAgree) {
  const Song song;
  std::vector<double> residual(song.mix.audio.columns());
  for (std::size_t i = 0; i < residual.size(); ++i) {
    residual[i] = song.mix.audio.row(0)[i] - song.model.model_sum.row(0)[i];
  }
  ChannelJob job;
  for (const auto& model : song.model.models) job.source_models.push_back(model.audio.row(0));
  job.residual = residual;
  job.sr = song.mix.sr;
  job.stop = residual.size();
  const Machine machine = system_machine();
  const SpectralTransform transform;
  const StopToken stop;
  RenderScratch scratch(machine, job.source_models.size(), residual.size(), 1);
  ChannelRender render(job, transform, scratch, stop);
  PhaseRunner phases(render, 1, machine);

  const auto picks = read_picks();
  std::size_t compared = 0;
  const auto compare = [&](int phase, double relative, double absolute,
                           const std::map<std::string, MappedArray*>& arrays) {
    for (const Pick& pick : picks.at(phase)) {
      std::size_t stem = 0;
      while (song.model.models[stem].name != pick.stem) ++stem;
      const auto row = arrays.at(pick.array)->row(stem);
      const auto value = static_cast<double>(
          row[phase == 2 ? pick.place : render.grid.index(pick.place, pick.frame)]);
      EXPECT_NEAR(value, pick.value, relative * std::abs(pick.value) + absolute)
          << "phase " << phase << ' ' << pick.array << ' ' << pick.stem << ' ' << pick.place << ','
          << pick.frame;
      ++compared;
    }
  };
  phases.prepare_residual();
  phases.score_sources();
  compare(1, 1e-5, 1e-8,
          {{"support", &render.support_scores},
           {"lagged", &render.scores09},
           {"persistent", &render.scores10}});
  phases.render_all_endpoints();
  compare(2, 1e-5, 1e-8, {{"endpoint-09", &render.output09}, {"endpoint-10", &render.output10}});
  phases.project_stems();
  compare(3, 0.0, 1e-3, {{"lagged", &render.scores09}, {"persistent", &render.scores10}});
  phases.build_histories();
  compare(4, 1e-5, 1e-8,
          {{"history", &render.histories}, {"transient-history", &render.transient_histories}});
  EXPECT_GT(compared, 2000U);
}

}  // namespace
}  // namespace verdel
