#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "support/machine.hpp"

/// How much of the machine a render may use: the test before anything is decoded, and how many
/// channels, intervals and stems run at once. Pure functions of the job and the machine's measures;
/// `frames` are samples of one channel, `cells` the cells of one spectrum, `stems` a count.
namespace verdel {

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

/// Stems scored at once: 1 to 6.
std::size_t _c14_stem_worker_count(std::size_t cells, std::size_t worker_limit,
                                   const Machine& machine);

/// Stems projected at once: 1 to 3; the environment variable VERDEL_C14_PROJECTION_WORKERS can
/// lower it. Throws ValueError if that is not a positive whole number.
std::size_t _c14_projection_worker_count(std::size_t stems, std::size_t cells,
                                         std::size_t worker_limit, const Machine& machine);

}  // namespace verdel
