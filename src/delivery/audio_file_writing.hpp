#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "signal/arrays.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// The containers of a 32-bit float file: plain WAV, whose sizes are 32-bit numbers, and RF64 (EBU
/// Tech 3306), which is the same with 64-bit sizes.
enum class WavContainer { kPlain, kRf64 };

/// Plain WAV as long as the whole file stays below 4 GiB.
WavContainer wav_container(std::size_t channels, std::uint64_t frames);

struct AudioFileFormat {
  int sr = 0;                ///< Hz
  std::size_t channels = 0;  ///< at least 1
  std::uint64_t frames = 0;  ///< as many as will be written, neither more nor fewer
  WavContainer container = wav_container(channels, frames);
};

/// Writes one 32-bit float file, whole or not at all. The samples go to a file of their own in the
/// target's folder, which takes the target's name in one step once everything is on the disk:
/// until then what stood under the name stays as it was, and without commit() the new file leaves
/// no trace (see unfinished_file.hpp). The same samples give the same bytes at any time.
///
/// Errors: OSError with the target's name and the reason, the system's own where it has one (a full
/// disk, a folder in the way); also for a number of frames other than announced. Cancelled by a
/// stop token. After any of them the writer can only be destroyed.
class AudioFileWriter {
 public:
  AudioFileWriter(const std::string& target, const AudioFileFormat& format);
  ~AudioFileWriter();
  AudioFileWriter(const AudioFileWriter&) = delete;
  AudioFileWriter& operator=(const AudioFileWriter&) = delete;

  /// Appends [channels][frames]; doubles are rounded to the nearest float. No scaling, no clipping.
  void write(RowsView<const float> audio, const StopToken& stop = {});
  void write(RowsView<const double> audio, const StopToken& stop = {});

  /// Completes the file and gives it its name; the last call.
  void commit();

 private:
  class Output;
  std::unique_ptr<Output> output_;
};

}  // namespace verdel::internal
