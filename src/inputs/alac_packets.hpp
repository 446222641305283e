#pragma once

#include <cstdint>
#include <optional>

#include "inputs/byte_source.hpp"

namespace verdel::internal {

/// What a CAF file says of its ALAC sound.
struct AlacSound {
  /// How the file's format is to tell the bit depth: 1 to 4 for 16, 20, 24 and 32 bits. Some
  /// writers leave it at 0; the depth is then that of the codec's description.
  std::uint64_t depth_flag = 0;
  /// Whether a packet holds two channels of more than 16 bits as they are, without compression. The
  /// decoder drops the upper bits of the second, and says nothing. Only the first channels of each
  /// packet are looked at; behind those only a decoder finds its way.
  bool is_misread = false;
};

/// Nothing if the table of packets makes no sense, which must be one table for one description of
/// the codec, with as many packets as it announces, none larger than a packet can be, and all of
/// them within the `data_bytes` from `data` on; or if the description does not fit the format.
///
/// The decoder believes the table and prints its complaints to standard output, where a parent
/// application reads the run's lines; so it is only shown a table that passed here. The layouts are
/// those of the descriptions of CAF and ALAC by their maker.
std::optional<AlacSound> read_alac_sound(const ByteSource& source, std::uint64_t data,
                                         std::uint64_t data_bytes);

}  // namespace verdel::internal
