#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "support/machine.hpp"

/// How much of the machine a render may use: the test before anything is decoded, and how many
/// renders, and stems inside one, run at once. Pure functions of the job and the machine's
/// measures; `frames` are samples of one channel, `cells` the cells of one spectrum, `stems` a
/// count.
namespace verdel::internal {

/// Why the render does not fit this machine, or nothing if it does.
std::optional<std::string> _c14_resource_budget_error(std::size_t audio_frames, int sr,
                                                      std::size_t stems, std::size_t channels,
                                                      const Machine& machine);

/// Channels rendered at once: 1 or 2.
std::size_t _c14_channel_worker_count(std::size_t audio_frames, std::size_t output_frames,
                                      std::size_t stems, std::size_t channels,
                                      const Machine& machine);

/// Threads inside one channel: 1 to 6.
std::size_t _c14_inner_worker_count(std::size_t channel_workers, const Machine& machine);

/// Intervals of one channel rendered at once: 1 to 6.
std::size_t _c14_time_worker_count(std::size_t audio_frames, int sr, std::size_t stems,
                                   std::size_t active_channels, const Machine& machine);

/// Renders at once when each takes `file_bytes` of temporary files and `memory_bytes` of memory:
/// one a processor, as far as files and memory of all of them fit beside `persistent` bytes of
/// audio. The counts above suppose 60 bytes a cell; a render that takes less may have company.
/// At least 1.
std::size_t render_worker_count(std::uint64_t persistent, std::uint64_t file_bytes,
                                std::uint64_t memory_bytes, const Machine& machine);

/// Bytes of the audio that stands in memory during a render, about: mix, taps, models, residual.
std::uint64_t persistent_bytes(std::size_t audio_frames, std::size_t stems, std::size_t channels);

/// Stems scored at once: 1 to 6.
std::size_t _c14_stem_worker_count(std::size_t cells, std::size_t worker_limit,
                                   const Machine& machine);

/// Stems projected at once: 1 to 3; the environment variable VERDEL_C14_PROJECTION_WORKERS can
/// lower it. Throws ValueError if that is not a positive whole number.
std::size_t _c14_projection_worker_count(std::size_t stems, std::size_t cells,
                                         std::size_t worker_limit, const Machine& machine);

}  // namespace verdel::internal
