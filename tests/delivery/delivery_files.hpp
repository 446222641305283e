#pragma once

#include <sys/resource.h>

#include <csignal>
#include <string>

#include "delivery/audio_file_writing.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {

template <class Sample>
void write_audio(const std::string& path, int sr, RowsView<const Sample> audio) {
  AudioFileWriter writer(path, {.sr = sr, .channels = audio.rows(), .frames = audio.columns()});
  writer.write(audio);
  writer.commit();
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

}  // namespace verdel::internal
