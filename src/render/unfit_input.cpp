#include "render/unfit_input.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "signal/levels.hpp"
#include "support/number_text.hpp"

namespace verdel::internal {
namespace {

std::optional<UnfitInput> unfit_sample(std::optional<std::size_t> tap,
                                       const std::optional<BadSample>& bad, std::ptrdiff_t lag) {
  if (!bad) return std::nullopt;
  return UnfitInput{
      .tap = tap, .channel = bad->channel, .sample = static_cast<std::ptrdiff_t>(bad->frame) - lag};
}

}  // namespace

std::optional<UnfitInput> unfit_input(AudioView mix, const StemMap& taps,
                                      const std::vector<AppliedLag>& lags) {
  if (const auto bad = unfit_sample(std::nullopt, first_non_finite(mix), 0)) return bad;
  for (std::size_t tap = 0; tap < taps.size(); ++tap) {
    const StemView audio = taps[tap].audio.view();
    if (audio.rows() != mix.rows()) return UnfitInput{.tap = tap, .channels = audio.rows()};
    const auto moved = std::ranges::find(lags, taps[tap].name, &AppliedLag::name);
    const std::ptrdiff_t lag = moved == lags.end() ? 0 : moved->lag;
    if (const auto bad = unfit_sample(tap, first_non_finite(audio), lag)) return bad;
  }
  return std::nullopt;
}

std::string unfit_text(const UnfitInput& unfit, std::size_t mix_channels, std::size_t channel) {
  if (unfit.channels != 0) {
    return fmt::format("{}, but the mix has {}. Bounce it like the mix.",
                       counted(unfit.channels, "channel"), mix_channels);
  }
  return fmt::format(
      "sample {} of channel {} is not a finite number (both counted from 0). Bounce it again.",
      unfit.sample, channel);
}

}  // namespace verdel::internal
