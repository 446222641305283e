#include "driver/unfit_input.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "signal/levels.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

std::optional<std::string> bad_sample_of(const StemInput& input, AudioView audio,
                                         std::ptrdiff_t lag) {
  const auto bad = first_non_finite(audio);
  if (!bad) return std::nullopt;
  const auto sample = static_cast<std::ptrdiff_t>(bad->frame) - lag;
  const bool is_pair = input.files.size() == 2;
  return fmt::format(
      "{}: sample {} of channel {} is not a finite number (both counted from 0). Bounce it again.",
      printable(is_pair ? input.files[bad->channel] : input.files.front()), sample,
      is_pair ? 0 : bad->channel);
}

}  // namespace

std::optional<std::string> unfit_input(const Mix& mix, const StemMap& taps,
                                       const std::vector<StemInput>& plan,
                                       const std::vector<AppliedLag>& lags) {
  if (auto text = bad_sample_of(mix.input, mix.audio.view(), 0)) return text;
  for (const auto& tap : taps) {
    const auto input = std::ranges::find(plan, tap.name, &StemInput::name);
    if (input == plan.end()) continue;
    if (tap.audio.rows() != mix.channels()) {
      return fmt::format("{}: {} channels, but the mix has {}. Bounce it like the mix.",
                         printable(input->files.front()), tap.audio.rows(), mix.channels());
    }
    const auto moved = std::ranges::find(lags, tap.name, &AppliedLag::name);
    const std::ptrdiff_t lag = moved == lags.end() ? 0 : moved->lag;
    if (auto text = bad_sample_of(*input, tap.audio.view(), lag)) return text;
  }
  return std::nullopt;
}

}  // namespace verdel::internal
