#pragma once

#include <sndfile.h>

#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace verdel::internal::testing {

/// Samples as [channel][frame].
using Channels = std::vector<std::vector<double>>;

/// Sound that differs from channel to channel and from frame to frame, in steps of a 16-bit sample
/// so that every format but 8 bits holds it exactly.
inline Channels test_sound(std::size_t channels, std::size_t frames, double gain = 0.5) {
  Channels sound(channels, std::vector<double>(frames));
  for (std::size_t c = 0; c < channels; ++c) {
    for (std::size_t i = 0; i < frames; ++i) {
      const double value = gain * std::sin(0.05 * static_cast<double>((c + 1) * (i + 1)));
      sound[c][i] = std::rint(value * 32768.0) / 32768.0;
    }
  }
  return sound;
}

inline void write_audio(const std::string& path, const Channels& sound, int sr = 44100,
                        int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT) {
  SF_INFO properties{0, sr, static_cast<int>(sound.size()), format, 0, 0};
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &properties);
  if (file == nullptr) throw std::runtime_error(path + ": " + sf_strerror(nullptr));
  const std::size_t frames = sound.front().size();
  std::vector<double> interleaved;
  interleaved.reserve(frames * sound.size());
  for (std::size_t i = 0; i < frames; ++i) {
    for (const auto& channel : sound) interleaved.push_back(channel[i]);
  }
  const auto count = static_cast<sf_count_t>(frames);
  const bool written = sf_writef_double(file, interleaved.data(), count) == count;
  if (sf_close(file) != 0 || !written) throw std::runtime_error("cannot write " + path);
}

}  // namespace verdel::internal::testing
