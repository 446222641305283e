#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "inputs/audio_loading.hpp"

// Tells how near each stem of a render is to its true one: the energy of the true stem over that of
// the difference, in dB, over all channels. One line for each file of TRUE that is not silent.
namespace verdel::internal {
namespace {

namespace fs = std::filesystem;

double energy(AudioView audio) {
  double sum = 0.0;
  for (std::size_t channel = 0; channel < audio.rows(); ++channel) {
    for (const double sample : audio.row(channel)) sum += sample * sample;
  }
  return sum;
}

double difference_energy(AudioView one, AudioView other) {
  double sum = 0.0;
  for (std::size_t channel = 0; channel < one.rows(); ++channel) {
    for (std::size_t i = 0; i < one.columns(); ++i) {
      const double difference = one.row(channel)[i] - other.row(channel)[i];
      sum += difference * difference;
    }
  }
  return sum;
}

void print_sdr(const fs::path& stem_file, const fs::path& true_file) {
  const LoadedAudio truth = load(true_file.string()), stem = load(stem_file.string());
  const AudioView one = truth.audio.view(), other = stem.audio.view();
  if (one.rows() != other.rows() || one.columns() != other.columns() || truth.sr != stem.sr) {
    throw std::runtime_error(stem_file.string() + " has not the form of " + true_file.string());
  }
  const double whole = energy(one), wrong = difference_energy(one, other);
  if (whole == 0.0) return;
  // Equal files are better than any number; a number keeps the mean readable.
  const double sdr = 10.0 * std::log10(whole / std::max(wrong, 1e-20 * whole));
  std::printf("%s\t%.3f\n", true_file.stem().c_str(), sdr);
}

void print_all(const fs::path& stems, const fs::path& truth) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(truth)) files.push_back(entry.path());
  std::ranges::sort(files);
  for (const fs::path& file : files) print_sdr(stems / file.filename(), file);
}

}  // namespace
}  // namespace verdel::internal

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: verdel-sdr STEMS TRUE\n");
    return 2;
  }
  try {
    verdel::internal::print_all(argv[1], argv[2]);
    return EXIT_SUCCESS;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "verdel-sdr: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
