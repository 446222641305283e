#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "inputs/broadcast_info.hpp"
#include "signal/arrays.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// WAV, plain or as RF64 by its length; FLAC; AIFF.
enum class FileType { kWav, kFlac, kAiff };

/// 32-bit floats, full scale at 1.0; or integers, full scale at two to the power of their bits less
/// one. FLAC and AIFF are written with integers only.
enum class SampleType { kFloat32, kInteger16, kInteger24 };

std::size_t bytes_of(SampleType samples);

/// The containers of a WAV file: plain WAV, whose sizes are 32-bit numbers, and RF64 (EBU Tech
/// 3306), which is the same with 64-bit sizes.
enum class WavContainer { kPlain, kRf64 };

/// Plain WAV as long as the whole file stays below 4 GiB.
WavContainer wav_container(std::size_t channels, std::uint64_t frames,
                           SampleType samples = SampleType::kFloat32);

struct AudioFileFormat {
  int sr = 0;                ///< Hz
  std::size_t channels = 0;  ///< at least 1
  std::uint64_t frames = 0;  ///< as many as will be written, neither more nor fewer
  FileType type = FileType::kWav;
  SampleType samples = SampleType::kFloat32;
  std::optional<BroadcastInfo> broadcast = {};  ///< WAV only
  WavContainer container = wav_container(channels, frames, samples);
};

/// Writes one audio file, whole or not at all. The samples go to a file of their own in the
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
  AudioFileWriter(AudioFileWriter&&) noexcept;

  /// Appends [channels][frames] to a file of floats; doubles are rounded to the nearest float. No
  /// scaling, no clipping.
  void write(RowsView<const float> audio, const StopToken& stop = {});
  void write(RowsView<const double> audio, const StopToken& stop = {});
  /// Appends [channels][frames] to a file of integers, which must hold them.
  void write(RowsView<const std::int32_t> audio, const StopToken& stop = {});

  /// Completes the file, still under its temporary name, which it returns: there it can be read
  /// back, as long as this writer lives.
  const std::string& finish();
  /// Gives the file its name, finished before or not; the last call.
  void commit();

 private:
  class Output;
  std::unique_ptr<Output> output_;
};

}  // namespace verdel::internal
