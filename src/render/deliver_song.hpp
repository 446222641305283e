#pragma once

#include <cstddef>
#include <string>

#include "delivery/render_outputs.hpp"
#include "render/render_song.hpp"
#include "support/line_sink.hpp"

namespace verdel::internal {

/// Where the stems of a song go, and what is told of them.
struct SongFiles {
  std::string out;          ///< the folder
  bool write_null = false;  ///< also write what is left of the mix
  bool report = true;       ///< whether stems are compared with their taps
  std::size_t workers = 1;  ///< threads of the comparison; no figure depends on it
};

/// Rounds, writes, reports and proves the stems that render_song returned; the taps are those that
/// it aligned. The lines go to `line`, the stages to the observer. Errors: those of
/// write_render_outputs.
DeliveryVerdict deliver_song(const SongJob& job, const StemMap& taps, CoordinatedStems stems,
                             const SongFiles& files, const LineSink& line, SongObserver& observer,
                             const StopToken& stop = {});

}  // namespace verdel::internal
