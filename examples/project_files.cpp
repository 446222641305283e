#include "project_files.hpp"

#include <sndfile.h>

#include <memory>
#include <stdexcept>
#include <vector>

namespace demo {

void write_wav(const std::filesystem::path& path, const Stereo& sound, const FileForm& form,
               std::size_t late) {
  SF_INFO format{};
  format.samplerate = form.sr;
  format.channels = form.channels;
  format.format =
      SF_FORMAT_WAV | (form.format == SampleFormat::kFloat32 ? SF_FORMAT_FLOAT : SF_FORMAT_PCM_24);
  const std::unique_ptr<SNDFILE, int (*)(SNDFILE*)> file(sf_open(path.c_str(), SFM_WRITE, &format),
                                                         sf_close);
  if (file == nullptr) throw std::runtime_error(path.string() + ": " + sf_strerror(nullptr));
  // A time stamp in the file would make two runs differ.
  sf_command(file.get(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);

  std::vector<double> interleaved;
  interleaved.reserve(sound.frames() * static_cast<std::size_t>(form.channels));
  for (std::size_t i = 0; i < sound.frames(); ++i) {
    const double left = i < late ? 0.0 : sound.left[i - late];
    const double right = i < late ? 0.0 : sound.right[i - late];
    if (form.channels == 2) {
      interleaved.insert(interleaved.end(), {left, right});
    } else {
      interleaved.push_back(0.5 * (left + right));
    }
  }
  const auto items = static_cast<sf_count_t>(interleaved.size());
  if (sf_write_double(file.get(), interleaved.data(), items) != items) {
    throw std::runtime_error(path.string() + ": " + sf_strerror(file.get()));
  }
}

void make_folders(const std::filesystem::path& project, const std::string& advice) {
  if (std::filesystem::exists(project) && !std::filesystem::is_empty(project)) {
    throw std::runtime_error(project.string() + " is not empty; " + advice);
  }
  make_folders(project);
}

void make_folders(const std::filesystem::path& project) {
  std::filesystem::create_directories(project / "taps");
  std::filesystem::create_directories(project / "mix");
}

}  // namespace demo
