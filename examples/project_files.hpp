#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "instruments.hpp"

namespace demo {

enum class SampleFormat { kInteger24, kFloat32 };

struct FileForm {
  int sr = 44100;
  int channels = 2;  ///< one channel is the mean of both sides
  SampleFormat format = SampleFormat::kInteger24;
};

/// Writes a WAV. `late` in frames delays what is written, as a bounce does whose track was not
/// compensated.
void write_wav(const std::filesystem::path& path, const Stereo& sound, const FileForm& form,
               std::size_t late = 0);

/// Makes the folders of an empty project, taps and mix. A folder that holds something already is
/// refused; `advice` ends the sentence.
void make_folders(const std::filesystem::path& project, const std::string& advice);
/// The same in a folder that may hold anything.
void make_folders(const std::filesystem::path& project);

}  // namespace demo
