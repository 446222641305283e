#include "excerpt/excerpt_suggestion.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <vector>

#include "excerpt/loudest_stretch.hpp"
#include "excerpt/onset_curve.hpp"
#include "excerpt/tempo.hpp"

namespace verdel::internal {
namespace {

constexpr double kShortestMix = 4.0;      // seconds
constexpr std::size_t kFewestOnsets = 8;  // values of the onset curve
constexpr int kBarCounts[] = {2, 4, 8, 16};
constexpr double kLongest = 1.25;  // times the wished length
constexpr double kSmoothingSeconds = 0.25;
constexpr double kLeastSmoothing = 3.0;  // samples

// A length in samples cut to 0 .. most: a wish may be infinite, or no number at all.
std::size_t whole_samples(double samples, std::size_t most) {
  if (!(samples > 0.0)) return 0;
  return samples >= static_cast<double>(most) ? most : static_cast<std::size_t>(samples);
}

// The onset curve less its mean; nothing if nothing ever starts in the mix, or if it holds what is
// not finite.
std::optional<std::vector<double>> centred_onsets(AudioView mix, const StopToken& stop) {
  std::vector<double> flux = onset_curve(mix, stop);
  double sum = 0.0;
  for (const double value : flux) sum += value;
  // No value is below zero, so the sum tells of all of them.
  if (flux.size() < kFewestOnsets || !(sum > 0.0) || !std::isfinite(sum)) return std::nullopt;
  const double mean = sum / static_cast<double>(flux.size());
  for (double& value : flux) value -= mean;
  return flux;
}

// The number of bars whose length comes nearest to the wish, the smaller of two as near; 0 if even
// the fewest are too long.
int choose_bars(double bar, double target, double mix_seconds) {
  const double longest = std::min(mix_seconds, target * kLongest);
  int chosen = 0;
  double nearest = std::numeric_limits<double>::infinity();
  for (const int count : kBarCounts) {
    const double distance = std::abs(count * bar - target);
    if (!(count * bar <= longest) || (chosen != 0 && distance >= nearest)) continue;
    chosen = count;
    nearest = distance;
  }
  return chosen;
}

}  // namespace

ExcerptSuggestion suggest_excerpt(AudioView mix, int sr, double target, const StopToken& stop) {
  const std::size_t n = mix.columns();
  const auto frames = static_cast<double>(n);
  const double rate = sr;
  ExcerptSuggestion suggestion{.length = whole_samples(target * rate, n)};
  if (frames < rate * kShortestMix) return suggestion;
  const auto flux = centred_onsets(mix, stop);
  if (!flux) return suggestion;
  stop.check();
  const double fps = rate / static_cast<double>(kOnsetHop);
  const auto tempo = find_tempo(*flux, fps);
  if (!tempo) return suggestion;
  suggestion.bpm = 60.0 * fps / tempo->period;
  suggestion.confidence = tempo->confidence;

  const double bar = static_cast<double>(kBeatsPerBar) * 60.0 / suggestion.bpm;
  suggestion.bars = choose_bars(bar, target, frames / rate);
  if (suggestion.bars == 0) return suggestion;
  const double seconds = suggestion.bars * bar;
  const std::size_t length = whole_samples(seconds * rate, n);
  suggestion.length = n;
  if (length >= n) return suggestion;

  const double smoothing = std::max(kLeastSmoothing, std::trunc(rate * kSmoothingSeconds));
  const std::size_t loudest =
      loudest_stretch(mix, length, static_cast<std::size_t>(smoothing), stop);
  const double first_downbeat = tempo->first_downbeat * static_cast<double>(kOnsetHop) / rate;
  const double k = std::nearbyint((static_cast<double>(loudest) / rate - first_downbeat) / bar);
  const double snapped = first_downbeat + k * bar;
  const double start = std::min(std::max(0.0, frames / rate - seconds), std::max(snapped, 0.0));
  suggestion.length = static_cast<std::size_t>(std::nearbyint(seconds * rate));
  // Start and length are rounded apart; together they may come to a sample more than there is.
  suggestion.start =
      std::min(static_cast<std::size_t>(std::nearbyint(start * rate)), n - suggestion.length);
  return suggestion;
}

}  // namespace verdel::internal
