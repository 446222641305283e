#pragma once

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <numbers>
#include <string>
#include <vector>

#include "driver/entry.hpp"
#include "driver/process.hpp"
#include "support/audio_files.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal::testing {

struct RunResult {
  int status = 0;
  std::string out, err;
};

/// Runs an entry inside the test, on whatever machine the test plays.
inline RunResult run_entry(Entry entry, const std::vector<std::string>& arguments,
                           const Machine& machine = system_machine(), StopToken stop = {}) {
  const TemporaryFolder streams;
  std::FILE* const out = std::fopen(streams.path("out").c_str(), "w");
  std::FILE* const err = std::fopen(streams.path("err").c_str(), "w");
  RunContext context{.machine = machine, .out = out, .err = err, .stop = stop};
  const int status = entry(arguments, context);
  std::fclose(out);
  std::fclose(err);
  return {status, bytes_of(streams.path("out")), bytes_of(streams.path("err"))};
}

/// Decaying tones, one struck every 0.3 s or so; each number is another instrument.
inline Channels hits(std::size_t number, std::size_t channels, std::size_t frames, int sr) {
  Channels sound(channels, std::vector<double>(frames));
  const auto period = static_cast<std::size_t>(sr) * (3 + number) / 10;
  const double pitch = 2.0 * std::numbers::pi * 110.0 * static_cast<double>(1 + 2 * number) / sr;
  for (std::size_t c = 0; c < channels; ++c) {
    const double level = 0.25 + 0.05 * static_cast<double>(c);
    for (std::size_t i = 0; i < frames; ++i) {
      const auto since = static_cast<double>((i + number * 577) % period);
      sound[c][i] = level * std::exp(-since / (0.05 * sr)) * std::sin(pitch * since);
    }
  }
  return sound;
}

struct ProjectShape {
  std::size_t channels = 2, frames = 12000;
  int sr = 8000;
};

/// A project folder with a mix of saturated hits, and a tap for each name.
class SmallProject {
 public:
  explicit SmallProject(const std::vector<std::string>& names, const ProjectShape& shape = {})
      : sr_(shape.sr) {
    const auto [channels, frames, sr] = shape;
    std::filesystem::create_directories(folder_.path("taps"));
    mix_ = Channels(channels, std::vector<double>(frames));
    for (std::size_t s = 0; s < names.size(); ++s) {
      const Channels tap = hits(s, channels, frames, sr);
      write_tap(names[s] + ".wav", tap);
      for (std::size_t c = 0; c < channels; ++c) {
        for (std::size_t i = 0; i < frames; ++i) mix_[c][i] += tap[c][i];
      }
    }
    for (auto& channel : mix_) {
      for (double& sample : channel) sample = std::tanh(1.2 * sample);
    }
    write_audio(mix_path(), mix_, sr);
  }

  const std::string& path() const { return folder_.path(); }
  std::string path(const std::string& name) const { return folder_.path(name); }
  std::string mix_path() const { return folder_.path("mix.wav"); }
  std::string out() const { return folder_.path("out"); }
  const Channels& mix() const { return mix_; }

  void write_tap(const std::string& name, const Channels& sound) const {
    write_audio(folder_.path("taps/" + name), sound, sr_);
  }

  /// Arguments of a render of this project, without the report, and some more.
  std::vector<std::string> render(const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments = {"--mix", mix_path(), "--taps",     folder_.path("taps"),
                                          "--out", out(),      "--no-report"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
  }

 private:
  TemporaryFolder folder_;
  int sr_;
  Channels mix_;
};

}  // namespace verdel::internal::testing
