#pragma once

#include <cstdint>

#include "inputs/byte_source.hpp"

namespace verdel::internal {

/// Whether the table of packets that a CAF file has for ALAC sound makes sense: one table and one
/// description of the codec, as many packets as the table announces, none larger than a packet can
/// be, and all of them within `data_bytes`.
///
/// The decoder believes the table and prints its complaints to standard output, where a parent
/// application reads the run's lines; so it is only shown a table that passed here. The layouts are
/// those of the descriptions of CAF and ALAC by their maker.
bool alac_packets_are_sound(const ByteSource& source, std::uint64_t data_bytes);

}  // namespace verdel::internal
