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
constexpr double kUsableMemory = 0.7;   // of the machine's
constexpr double kRenderMemory = 0.36;  // the same, for the working memory of renders
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

/// Storage that a render of `padded` samples is granted, on the safe side by far.
std::uint64_t scratch_bytes(std::size_t stems, std::size_t padded) {
  return stems * spectrum_cells(padded) * 60;
}

std::uint64_t share_of(std::uint64_t bytes, double share) {
  return static_cast<std::uint64_t>(static_cast<double>(bytes) * share);
}

/// Where the space is missing, and what to do.
std::string space_advice(const Machine& machine, std::uint64_t space) {
  const std::string state =
      space == 0 ? " is full or not there" : " has " + std::to_string(space >> 20) + " MiB free";
  return "the temporary folder " + quoted_path(machine.temporary_folder()) + state +
         ": set TMPDIR to a folder with more room";
}

/// The ceiling that the environment sets on stems projected at once.
std::uint64_t projection_ceiling() {
  const char* text = std::getenv("VERDEL_C14_PROJECTION_WORKERS");
  if (text == nullptr) return std::numeric_limits<std::uint64_t>::max();
  const auto value = parse_whole(text);
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
  const std::uint64_t audio =
      (2 * stems + 4) * channels * std::uint64_t{audio_frames} * sizeof(double);
  const std::uint64_t required = audio + temporary;
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

std::size_t render_worker_count(std::uint64_t memory_bytes, const Machine& machine) {
  const std::uint64_t fitting =
      share_of(machine.physical_memory(), kRenderMemory) / std::max<std::uint64_t>(1, memory_bytes);
  return std::max<std::size_t>(
      1, std::min({fitting, std::uint64_t{machine.processors()}, projection_ceiling()}));
}

}  // namespace verdel::internal
