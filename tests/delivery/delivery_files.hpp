#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <csignal>

#include "delivery/audio_file_writing.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"

namespace verdel::internal {

/// From now on no file of this process grows beyond a size, as on a full disk; RLIM_INFINITY lifts
/// that.
inline void limit_files_to(rlim_t bytes) {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = std::min(bytes, limit.rlim_max);
  setrlimit(RLIMIT_FSIZE, &limit);
}

/// Writes a file in two parts.
inline void write_in_parts(const std::string& path, const AudioFileFormat& format, AudioView audio,
                           const StopToken& stop = {}) {
  AudioFileWriter writer(path, format);
  writer.write(audio.column_range(0, audio.columns() / 3), stop);
  writer.write(audio.column_range(audio.columns() / 3, audio.columns()), stop);
  writer.commit();
}

}  // namespace verdel::internal
