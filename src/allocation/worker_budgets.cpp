#include "allocation/worker_budgets.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "allocation/c14_constants.hpp"
#include "support/errors.hpp"
#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kContextSamples =
    (C14_CONTEXT_BEFORE_HOPS + C14_CONTEXT_AFTER_HOPS) * C14_HOP;
constexpr double kUsableMemory = 0.7;  // of the machine's
constexpr double kUsableSpace = 0.6;   // of the temporary volume beyond its margin
constexpr double kGibibyte = 1024.0 * 1024.0 * 1024.0;

std::uint64_t rounded_up_quotient(double numerator, double denominator) {
  return static_cast<std::uint64_t>(std::ceil(numerator / denominator));
}

/// Samples of a number of seconds.
std::size_t samples_of(double seconds, int sr) {
  return static_cast<std::size_t>(std::nearbyint(seconds * sr));
}

std::uint64_t spectrum_cells(std::size_t padded) {
  return C14_BINS *
         (rounded_up_quotient(static_cast<double>(padded), static_cast<double>(C14_HOP)) + 2);
}

/// Temporary storage of one render of `padded` samples, on the safe side: three cell arrays and two
/// signals a stem are 14 bytes a cell.
std::uint64_t scratch_bytes(std::size_t stems, std::size_t padded) {
  return stems * spectrum_cells(padded) * 60;
}

std::uint64_t share_of(std::uint64_t bytes, double share) {
  return static_cast<std::uint64_t>(static_cast<double>(bytes) * share);
}

/// What the temporary volume holds beyond its margin.
std::uint64_t free_space(const Machine& machine) {
  const std::uint64_t space = machine.temporary_space();
  return space > C14_DISK_MARGIN ? space - C14_DISK_MARGIN : 0;
}

/// Where the space is missing, and what to do.
std::string space_advice(const Machine& machine, std::uint64_t space) {
  const std::string state =
      space == 0 ? " is full or not there" : " has " + std::to_string(space >> 20) + " MiB free";
  return "the temporary folder " + quoted_path(machine.temporary_folder()) + state +
         ": set TMPDIR to a folder with more room";
}

std::uint64_t at_least_one(std::uint64_t count) {
  return std::max<std::uint64_t>(1, count);
}

/// The ceiling that the environment sets on stems projected at once.
std::uint64_t projection_ceiling() {
  const char* text = std::getenv("VERDEL_C14_PROJECTION_WORKERS");
  const auto value = parse_whole(text == nullptr ? "3" : text);
  if (!value || *value < 1) {
    throw ValueError("VERDEL_C14_PROJECTION_WORKERS must be a positive integer");
  }
  return static_cast<std::uint64_t>(*value);
}

}  // namespace

std::optional<std::string> _c14_resource_budget_error(std::size_t audio_frames, int sr,
                                                      std::size_t stems, std::size_t channels,
                                                      const Machine& machine) {
  const std::size_t padded =
      std::min(audio_frames, samples_of(C14_INTERVAL_SECONDS, sr) + kContextSamples);
  const std::uint64_t temporary = scratch_bytes(stems, padded);
  const std::uint64_t required = persistent_bytes(audio_frames, stems, channels) + temporary;
  const std::uint64_t physical_memory = machine.physical_memory();
  if (required > share_of(physical_memory, kUsableMemory)) {
    return "this render needs about " +
           std::to_string(rounded_up_quotient(static_cast<double>(required), kGibibyte)) +
           " GiB of working memory, but this Mac has " + std::to_string(physical_memory >> 30) +
           " GiB; use fewer stems or a shorter bounce";
  }
  const std::uint64_t space_needed = temporary + C14_DISK_MARGIN;
  const std::uint64_t space = machine.temporary_space();
  if (space < space_needed) {
    return "VERDEL needs about " +
           std::to_string(rounded_up_quotient(static_cast<double>(space_needed), kGibibyte)) +
           " GiB free for temporary processing files\n" + space_advice(machine, space);
  }
  return std::nullopt;
}

std::size_t _c14_channel_worker_count(std::size_t audio_frames, std::size_t output_frames,
                                      std::size_t stems, std::size_t channels,
                                      const Machine& machine) {
  if (channels < 2) return 1;
  const std::size_t padded = std::min(audio_frames, output_frames + kContextSamples);
  const bool enough_disk =
      machine.temporary_space() >= 2 * scratch_bytes(stems, padded) + C14_DISK_MARGIN;
  const bool enough_memory =
      padded <= C14_LONG_FRAMES || machine.physical_memory() >= C14_LARGE_MEMORY;
  return enough_disk && enough_memory ? 2 : 1;
}

std::size_t _c14_inner_worker_count(std::size_t channel_workers, const Machine& machine) {
  const std::size_t budget = std::max<std::size_t>(1, machine.processors() * 3 / 4);
  const std::size_t share = budget / std::max<std::size_t>(1, channel_workers);
  return std::clamp<std::size_t>(share, 1, 6);
}

std::size_t _c14_time_worker_count(std::size_t audio_frames, int sr, std::size_t stems,
                                   std::size_t active_channels, const Machine& machine) {
  if (audio_frames < samples_of(C14_INTERVAL_MIN_SECONDS, sr)) return 1;
  const std::size_t interval = std::max<std::size_t>(1, samples_of(C14_INTERVAL_SECONDS, sr));
  const auto frames = static_cast<double>(audio_frames);
  const std::uint64_t intervals =
      at_least_one(rounded_up_quotient(frames, static_cast<double>(interval)));
  if (intervals < 2) return 1;
  const std::size_t active = std::max<std::size_t>(1, active_channels);
  const std::size_t padded = std::min(
      audio_frames, rounded_up_quotient(frames, static_cast<double>(intervals)) + kContextSamples);
  const std::uint64_t per_worker = at_least_one(scratch_bytes(stems, padded));
  const auto shared = static_cast<double>(active);
  const std::uint64_t memory_workers = at_least_one(
      static_cast<std::uint64_t>(static_cast<double>(machine.physical_memory()) * 0.36 / shared) /
      per_worker);
  const std::uint64_t disk_workers = at_least_one(
      static_cast<std::uint64_t>(static_cast<double>(free_space(machine)) * kUsableSpace / shared) /
      per_worker);
  const std::uint64_t processor_workers = at_least_one(machine.processors() / active);
  return std::min({intervals, std::uint64_t{6}, memory_workers, disk_workers, processor_workers});
}

std::uint64_t persistent_bytes(std::size_t audio_frames, std::size_t stems, std::size_t channels) {
  return (2 * stems + 4) * channels * static_cast<std::uint64_t>(audio_frames) * sizeof(double);
}

std::size_t render_worker_count(std::uint64_t persistent, std::uint64_t file_bytes,
                                std::uint64_t memory_bytes, const Machine& machine) {
  const std::uint64_t usable = share_of(machine.physical_memory(), kUsableMemory);
  const std::uint64_t memory = usable - std::min(usable, persistent);
  const std::uint64_t space = share_of(free_space(machine), kUsableSpace);
  // Files stand in memory too, as far as there is room, and are slow where there is none.
  return at_least_one(
      std::min({memory / at_least_one(file_bytes + memory_bytes), space / at_least_one(file_bytes),
                std::uint64_t{machine.processors()}}));
}

std::size_t _c14_stem_worker_count(std::size_t cells, std::size_t worker_limit,
                                   const Machine& machine) {
  const std::uint64_t per_worker = at_least_one(cells * 72);
  const std::uint64_t memory_workers =
      at_least_one(share_of(machine.physical_memory(), 0.1) / per_worker);
  return at_least_one(std::min({std::uint64_t{6}, std::uint64_t{worker_limit}, memory_workers}));
}

std::size_t _c14_projection_worker_count(std::size_t stems, std::size_t cells,
                                         std::size_t worker_limit, const Machine& machine) {
  const std::uint64_t ceiling = projection_ceiling();
  const std::uint64_t per_worker = at_least_one(cells * 56);
  const std::uint64_t memory_workers =
      at_least_one(share_of(machine.physical_memory(), 0.12) / per_worker);
  return at_least_one(std::min({std::uint64_t{worker_limit}, std::uint64_t{stems}, ceiling,
                                memory_workers, std::uint64_t{3}}));
}

}  // namespace verdel::internal
