#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "inputs/broadcast_info.hpp"
#include "inputs/byte_source.hpp"

namespace verdel::internal {

/// What a file says of its audio before any of it is decoded.
struct AudioHeader {
  int sr = 0;                              ///< Hz, at least 1
  std::size_t channels = 0;                ///< at least 1
  std::optional<std::size_t> frames = {};  ///< absent: the file does not say, as a stream's header

  bool operator==(const AudioHeader&) const = default;
};

/// An audio file open for reading from its first frame to its last. The format is told by the
/// content alone. One thread at a time; several files may be read at once.
class AudioFile {
 public:
  /// Opens the file at `path`, which every message names. Throws OSError if the system refuses, and
  /// RuntimeError if it is not a regular file, no audio, or promises more audio than it holds.
  explicit AudioFile(const std::string& path);
  /// The same for bytes from elsewhere.
  AudioFile(ByteSource source, const std::string& path);
  ~AudioFile();
  AudioFile(AudioFile&&) noexcept;

  const std::string& path() const;
  const AudioHeader& header() const;
  /// Whether the header's length stands for samples whose bytes are known to be in the file, so
  /// that memory for them may be taken beforehand.
  bool length_is_verified() const;
  /// The bits of the integers that the samples are, so that a sample times two to the power of one
  /// less is a whole number; absent for floating point. (Companded samples count as the 16 bits
  /// that they stand for.)
  std::optional<int> integer_bits() const;
  /// What a Broadcast WAV says of its place in time; absent where the file says nothing of it.
  std::optional<BroadcastInfo> broadcast_info() const;

  /// Decodes the next frames into `interleaved`, all channels of a frame in a row; full scale is
  /// 1.0. Returns how many frames there were, 0 at the end. Throws RuntimeError if the audio cannot
  /// be decoded or ends short of what the header said.
  std::size_t read(std::span<double> interleaved);
  /// The same, rounded to single precision.
  std::size_t read(std::span<float> interleaved);

  /// Whether the last frame that the header tells of can be decoded, asked for without those before
  /// it. A quick look at compressed audio, whose bytes do not tell how much they hold: true for a
  /// whole file, false for one cut short, and now and then for a whole file that cannot be
  /// searched. The file is spent: nothing can be read from it afterwards.
  bool last_frame_is_there();

 private:
  template <class Sample>
  std::size_t read_samples(std::span<Sample> interleaved);

  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace verdel::internal
