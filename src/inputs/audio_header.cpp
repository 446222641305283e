#include "inputs/audio_header.hpp"

#include <fmt/format.h>

#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

void require_mono(const AudioFile& side) {
  if (side.header().channels == 1) return;
  throw ValueError(fmt::format("{}: {}-channel; each .L/.R side must be mono.",
                               printable(basename(side.path())), side.header().channels));
}

// The sure test of a file that looks cut short: decoding throws if it is.
void decode_all(const std::string& path, const StopToken& stop) {
  constexpr std::size_t kBlockFrames = 4096;
  AudioFile file(path);
  std::vector<double> block(kBlockFrames * file.header().channels);
  while (file.read(block) != 0) stop.check();
}

AudioHeader pair_header(const StemInput& pair, const AudioFile& left, const AudioFile& right) {
  require_mono(left);
  require_mono(right);
  if (left.header().sr != right.header().sr) {
    throw ValueError(
        fmt::format("{} and {} have different sample rates. Bounce both mono sides at the same "
                    "sample rate.",
                    printable(basename(left.path())), printable(basename(right.path()))));
  }
  AudioHeader header{left.header().sr, 2, {}};
  if (left.header().frames && right.header().frames) {
    require_equal_lengths(pair, *left.header().frames, *right.header().frames);
    header.frames = left.header().frames;
  }
  return header;
}

}  // namespace

void require_equal_lengths(const StemInput& pair, std::size_t left_frames,
                           std::size_t right_frames) {
  if (left_frames == right_frames) return;
  throw ValueError(
      fmt::format("{} and {} have different lengths. Bounce both mono sides over the exact same "
                  "range.",
                  printable(basename(pair.files[0])), printable(basename(pair.files[1]))));
}

OpenAudioInput open_audio_input(const StemInput& input) {
  OpenAudioInput opened;
  for (const std::string& path : input.files) opened.files.emplace_back(path);
  opened.header = opened.files.size() == 1 ? opened.files.front().header()
                                           : pair_header(input, opened.files[0], opened.files[1]);
  return opened;
}

AudioHeader check_audio_input(const StemInput& input, const StopToken& stop) {
  OpenAudioInput opened = open_audio_input(input);
  for (AudioFile& file : opened.files) {
    if (!file.length_is_verified() && !file.last_frame_is_there()) decode_all(file.path(), stop);
  }
  return opened.header;
}

}  // namespace verdel::internal
