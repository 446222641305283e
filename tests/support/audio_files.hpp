#pragma once

#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace verdel::testing {

/// Samples as [channel][frame].
using Channels = std::vector<std::vector<double>>;
using FileBytes = std::vector<unsigned char>;

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
  SF_INFO properties{};
  properties.samplerate = sr;
  properties.channels = static_cast<int>(sound.size());
  properties.format = format;
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

inline FileBytes read_bytes(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return FileBytes(std::istreambuf_iterator<char>(file), {});
}

inline void write_bytes(const std::string& path, const FileBytes& bytes) {
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

/// Where a chunk's name stands.
inline std::size_t chunk_at(const FileBytes& bytes, const std::string& id) {
  const auto found = std::search(bytes.begin(), bytes.end(), id.begin(), id.end());
  if (found == bytes.end()) throw std::runtime_error("no chunk " + id);
  return static_cast<std::size_t>(found - bytes.begin());
}

}  // namespace verdel::testing
