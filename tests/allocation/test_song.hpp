#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "allocation/channel_render.hpp"

namespace verdel::internal::testing {

/// Noise in -1 .. 1, the same in every run.
class Noise {
 public:
  explicit Noise(std::uint32_t seed) : state_(seed) {}
  double operator()() {
    state_ = state_ * 1664525U + 1013904223U;
    return static_cast<double>(state_ >> 8U) / 8388608.0 - 1.0;
  }

 private:
  std::uint32_t state_;
};

/// A song in miniature: a drum with a noisy tail, a held tone and a plucked bass, and what a master
/// chain leaves unexplained: a ringing of all of them that outlasts the drum.
struct TestSong {
  std::vector<std::vector<double>> models;
  std::vector<double> residual;
  int sr;

  ChannelJob job() const {
    ChannelJob job;
    for (const auto& model : models) job.source_models.emplace_back(model);
    job.residual = residual;
    job.sr = sr;
    job.stop = residual.size();
    return job;
  }
};

/// One render of the whole signal on scratch of its own.
inline AudioArray render_full(const ChannelJob& job, const Machine& machine,
                              const StopToken& stop = {}) {
  RenderScratch scratch(machine, job.source_models.size(), job.residual.size(),
                        std::min(job.workers, RenderScratch::kMostScoringSpectra));
  auto rendered = AudioArray::uninitialised(job.source_models.size(), job.stop - job.start);
  _render_transient_release_tail_channel_full(job, machine, scratch, rendered.view(), stop);
  return rendered;
}

inline TestSong test_song(std::size_t samples, int sr, std::size_t stems = 3) {
  TestSong song{std::vector<std::vector<double>>(stems, std::vector<double>(samples)),
                std::vector<double>(samples), sr};
  Noise noise(7);
  double ringing = 0.0;
  for (std::size_t i = 0; i < samples; ++i) {
    const double time = static_cast<double>(i) / sr;
    double sum = 0.0;
    for (std::size_t s = 0; s < stems; ++s) {
      const double pitch = 90.0 * static_cast<double>(s + 1);
      const double beat = std::fmod(time + 0.07 * static_cast<double>(s), 0.5);
      double value = 0.0;
      if (s % 3 == 0) value = 0.5 * noise() * std::exp(-beat * 60.0);
      if (s % 3 == 1) value = 0.2 * std::sin(2.0 * M_PI * 4.0 * pitch * time);
      if (s % 3 == 2) value = 0.4 * std::sin(2.0 * M_PI * pitch * time) * std::exp(-beat * 6.0);
      song.models[s][i] = value;
      sum += value;
    }
    ringing = 0.9995 * ringing + 0.05 * sum * noise();
    song.residual[i] = 0.05 * sum + 0.1 * ringing;
  }
  return song;
}

}  // namespace verdel::internal::testing
