#include "inputs/audio_blocks.hpp"

#include <algorithm>

namespace verdel::internal {

AudioBlocks::AudioBlocks(const StemInput& input)
    : input_(input), opened_(open_audio_input(input)) {}

std::optional<int> AudioBlocks::integer_bits() const {
  int most = 0;
  for (const AudioFile& file : opened_.files) {
    const auto bits = file.integer_bits();
    if (!bits) return std::nullopt;
    most = std::max(most, *bits);
  }
  return most;
}

std::size_t AudioBlocks::read_file(std::size_t file, std::size_t channel, RowsView<double> into) {
  AudioFile& source = opened_.files[file];
  const std::size_t width = source.header().channels;
  interleaved_.resize(into.columns() * width);
  std::size_t done = 0;
  while (done < into.columns()) {
    const std::size_t count =
        source.read(std::span(interleaved_).first((into.columns() - done) * width));
    if (count == 0) break;
    for (std::size_t c = 0; c < width; ++c) {
      double* const row = into.row(channel + c).data() + done;
      for (std::size_t i = 0; i < count; ++i) row[i] = interleaved_[i * width + c];
    }
    done += count;
  }
  return done;
}

std::size_t AudioBlocks::read(RowsView<double> into) {
  const std::size_t count = read_file(0, 0, into);
  if (opened_.files.size() == 2) {
    const std::size_t right = read_file(1, 1, into);
    require_equal_lengths(input_, position_ + count, position_ + right);
  }
  position_ += count;
  return count;
}

std::size_t count_frames(const StemInput& input, const StopToken& stop) {
  constexpr std::size_t kBlockFrames = 16384;
  AudioBlocks blocks(input);
  if (blocks.header().frames) return *blocks.header().frames;
  auto block = AudioArray::uninitialised(blocks.header().channels, kBlockFrames);
  std::size_t frames = 0;
  while (const std::size_t count = blocks.read(block.view())) {
    stop.check();
    frames += count;
  }
  return frames;
}

}  // namespace verdel::internal
