#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "inputs/byte_source.hpp"

namespace verdel::internal {

/// Bytes to be read in place of a file's own.
struct BytePatch {
  std::uint64_t offset = 0;
  std::array<unsigned char, 8> bytes{};
  std::size_t count = 0;
};

/// What a file's container says about the audio in it, held against the bytes that are there.
struct AudioContainer {
  std::uint64_t start = 0;  ///< where the container begins, behind tags that were put before it
  /// Bytes of audio, all of them in the file; absent for FLAC, whose frames tell when decoded.
  std::optional<std::uint64_t> data_bytes;
  /// What a decoder is to be shown so that it finds all of the audio: the sizes that a writer which
  /// could not go back left at 0 or all ones, filled in. Offsets count from `start`.
  std::vector<BytePatch> patches;
};

/// Finds the audio in a WAV (RIFF, RIFX, RF64, BW64), AIFF, AIFF-C, CAF or FLAC file, chunk by
/// chunk and in bounded memory, whatever the bytes are. `path` is for messages only.
///
/// Throws RuntimeError if the file is none of these, holds no audio, promises more audio than it
/// has, or is encoded in another way than as PCM, floating point, A-law, mu-law, FLAC, or ALAC with
/// a sound table of packets: decoders of rare codecs see no bytes at all. The chunk layouts are
/// those of the RIFF and AIFF-C documents, EBU Tech 3306 and ITU-R BS.2088 (64-bit WAV), and the
/// description of CAF by its maker.
AudioContainer read_audio_container(const ByteSource& source, const std::string& path);

/// Refuses the encoding of a file with the RuntimeError of read_audio_container.
[[noreturn]] void fail_audio_encoding(const std::string& path);

}  // namespace verdel::internal
