#include "render/unfit_input.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "signal/levels.hpp"
#include "support/number_text.hpp"

namespace verdel::internal {
namespace {

std::optional<UnfitInput> bad_sample_of(std::optional<std::size_t> tap, AudioView audio,
                                        std::ptrdiff_t lag) {
  const auto bad = first_non_finite(audio);
  if (!bad) return std::nullopt;
  return UnfitInput{
      .tap = tap, .channel = bad->channel, .sample = static_cast<std::ptrdiff_t>(bad->frame) - lag};
}

}  // namespace

std::optional<UnfitInput> unfit_input(AudioView mix, const StemMap& taps,
                                      const std::vector<AppliedLag>& lags) {
  if (const auto bad = bad_sample_of(std::nullopt, mix, 0)) return bad;
  for (std::size_t tap = 0; tap < taps.size(); ++tap) {
    const AudioView audio = taps[tap].audio.view();
    if (audio.rows() != mix.rows()) return UnfitInput{.tap = tap, .channels = audio.rows()};
    const auto moved = std::ranges::find(lags, taps[tap].name, &AppliedLag::name);
    if (const auto bad = bad_sample_of(tap, audio, moved == lags.end() ? 0 : moved->lag))
      return bad;
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
