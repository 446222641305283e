#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "support/machine.hpp"

/// How much of the machine a render may use: the test before anything is decoded, and how many
/// renders run at once. Functions of the job and the machine's measures; `frames` are samples of
/// one channel, `stems` a count.
namespace verdel::internal {

/// Why the render does not fit this machine, or nothing if it does.
std::optional<std::string> _c14_resource_budget_error(std::size_t audio_frames, int sr,
                                                      std::size_t stems, std::size_t channels,
                                                      const Machine& machine);

/// Renders at once when each takes `memory_bytes`: one a processor, as far as their memory fits
/// beside the audio; at least 1. The environment variable VERDEL_C14_PROJECTION_WORKERS can lower
/// it: each render projects one stem at a time. Throws ValueError if that is not a positive whole
/// number.
std::size_t render_worker_count(std::uint64_t memory_bytes, const Machine& machine);

}  // namespace verdel::internal
