#pragma once

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "delivery/audio_file_writing.hpp"
#include "support/temporary_folder.hpp"

namespace verdel {

inline std::vector<std::string> names_in(const std::string& folder) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    found.push_back(entry.path().filename());
  }
  std::sort(found.begin(), found.end());
  return found;
}

inline std::string bytes_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

template <class Sample>
void write_audio(const std::string& path, int sr, RowsView<const Sample> audio) {
  AudioFileWriter writer(path, {.sr = sr, .channels = audio.rows(), .frames = audio.columns()});
  writer.write(audio);
  writer.commit();
}

struct ReadBack {
  SF_INFO info{};
  std::vector<float> samples;  // interleaved
};

inline ReadBack read_audio(const std::string& path) {
  ReadBack result;
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &result.info);
  if (file == nullptr) {
    ADD_FAILURE() << path << ": " << sf_strerror(nullptr);
    return result;
  }
  result.samples.resize(static_cast<std::size_t>(result.info.frames * result.info.channels));
  EXPECT_EQ(sf_readf_float(file, result.samples.data(), result.info.frames), result.info.frames);
  sf_close(file);
  return result;
}

/// Lets no file of this process grow beyond a size, as a full disk would, while it lives.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{bytes, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit before_{};
  void (*handler_)(int);
};

}  // namespace verdel
