#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <verdel/verdel.hpp>

#include "handover/integer_stems.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

// Integer stems without files: from the caller's arrays to arrays.
namespace verdel::internal {
namespace {

using Integers = std::vector<std::vector<std::int32_t>>;

std::size_t frames_of(const DeliverRequest& request) {
  if (request.bits != 16 && request.bits != 24) throw ValueError("bits must be 16 or 24");
  if (request.mix.empty() || request.stems.empty()) {
    throw ValueError("a delivery needs a mix and at least one stem");
  }
  const std::size_t frames = request.mix.front().size();
  const auto require = [&](const auto& channels, const std::string& owner) {
    const bool fits = channels.size() == request.mix.size() &&
                      std::ranges::all_of(channels, [&](auto row) { return row.size() == frames; });
    if (!fits) throw ValueError(owner + ": channels and length must be those of the mix");
  };
  require(request.mix, "mix");
  for (const FloatStem& stem : request.stems)
    require(stem.channels, "stem " + quoted_path(stem.name));
  return frames;
}

/// Rounds one channel block by block, as files are rounded, so that the integers are the same.
void deliver_channel(const DeliverRequest& request, std::size_t channel,
                     std::vector<StemRounding>& tallies, DeliverResult& result) {
  const IntegerGrid grid{request.bits};
  const auto mix = request.mix[channel];
  const std::span<std::int32_t> target = result.mix[channel];
  MixRounding rounding;
  round_mix(mix, grid, channel, 0, target, rounding);
  if (rounding.beyond.samples != 0) {
    throw ValueError(fmt::format("mix: sample {} of channel {} is beyond full scale or no number",
                                 rounding.beyond.frame, channel + 1));
  }
  result.largest_mix_change = std::max(result.largest_mix_change, rounding.changed.largest);
  std::vector<std::vector<double>> values(request.stems.size());
  for (std::size_t first = 0; first < mix.size(); first += kRoundingFrames) {
    const std::size_t count = std::min(kRoundingFrames, mix.size() - first);
    RoundingBlock block{.channel = channel,
                        .first = first,
                        .target = target.subspan(first, count),
                        .stems = {},
                        .rounded = {},
                        .grid = grid};
    for (std::size_t s = 0; s < values.size(); ++s) {
      const auto part = request.stems[s].channels[channel].subspan(first, count);
      values[s].assign(part.begin(), part.end());
      block.stems.emplace_back(values[s]);
      block.rounded.push_back(std::span(result.stems[s].channels[channel]).subspan(first, count));
    }
    if (const auto missed = round_together(block, tallies)) {
      throw ValueError(fmt::format("the stems miss the mix at sample {} of channel {}",
                                   missed->frame, channel + 1));
    }
  }
}

DeliverResult deliver_request(const DeliverRequest& request) {
  const std::size_t frames = frames_of(request), channels = request.mix.size();
  const Integers silence(channels, std::vector<std::int32_t>(frames));
  DeliverResult result{.mix = silence, .largest_mix_change = 0.0, .stems = {}};
  for (const FloatStem& stem : request.stems) {
    result.stems.emplace_back();
    result.stems.back().name = stem.name;
    result.stems.back().channels = silence;
  }
  std::vector<StemRounding> tallies(request.stems.size());
  for (std::size_t c = 0; c < channels; ++c) deliver_channel(request, c, tallies, result);
  const double samples = static_cast<double>(std::max<std::size_t>(frames * channels, 1));
  for (std::size_t s = 0; s < tallies.size(); ++s) {
    IntegerStem& stem = result.stems[s];
    stem.largest_departure = tallies[s].largest_departure;
    stem.rms_departure = std::sqrt(tallies[s].squares / samples);
    stem.samples_relieved = tallies[s].relieved.samples;
    stem.samples_taken = tallies[s].took.samples;
  }
  return result;
}

}  // namespace
}  // namespace verdel::internal

namespace verdel {

DeliverResult deliver(const DeliverRequest& request) {
  try {
    return internal::deliver_request(request);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& failure) {
    throw RenderError(failure.what());
  }
}

}  // namespace verdel
