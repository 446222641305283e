#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "inputs/audio_header.hpp"
#include "signal/arrays.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// One input read block by block from its first frame to its last, a pair as two channels: for
/// those who never need all of it. One thread at a time; several inputs may be read at once.
class AudioBlocks {
 public:
  /// Errors as those of open_audio_input.
  explicit AudioBlocks(const StemInput& input);

  const AudioHeader& header() const { return opened_.header; }
  const std::vector<AudioFile>& files() const { return opened_.files; }
  /// The most bits of its files' integers; absent if one holds floating point.
  std::optional<int> integer_bits() const;

  /// Decodes the next frames into the columns of `into`, which has a row for each channel, and
  /// returns how many there were: fewer than columns at the end alone. Errors as those of
  /// AudioFile::read, and a ValueError for sides of a pair that are not of one length.
  std::size_t read(RowsView<double> into);

 private:
  std::size_t read_file(std::size_t file, std::size_t channel, RowsView<double> into);

  StemInput input_;
  OpenAudioInput opened_;
  std::size_t position_ = 0;  ///< frames
  std::vector<double> interleaved_;
};

/// How long an input is; where its header does not tell, by decoding it.
std::size_t count_frames(const StemInput& input, const StopToken& stop = {});

}  // namespace verdel::internal
