#include "diagnosis/tap_profile.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace verdel::internal {
namespace {

constexpr double kSpread = 0.05;     // by which taps in one master differ at any rate
constexpr double kSurest = 0.1;      // relative deviation, above which a factor says little
constexpr double kDelayStep = 0.02;  // samples
constexpr double kClearlyTurned = 1.15;
constexpr double kLeastDelay = 0.1, kSureBy = 5.0;  // samples, standard deviations
constexpr double kUnsure = 0.3;                     // deviation of a ratio that is of no use at all
constexpr double kLeastLikeness = 0.97, kLeastStrength = 0.3;  // of one that stands with the others

using Complex = std::complex<double>;

struct Mean {
  Complex value;
  double weight = 0.0;

  void add(Complex x, double w) {
    value += w * x;
    weight += w;
  }
  Complex mean() const { return value / weight; }
  double deviation() const { return 1.0 / std::sqrt(weight); }
  bool is_sure() const { return weight > 0.0 && deviation() < kSurest * std::abs(mean()); }
};

/// By tap and band, over all segments and ears.
std::vector<std::vector<Mean>> band_means(const SpectralSums& sums,
                                          const std::vector<const TapFits*>& ears) {
  std::vector<std::vector<Mean>> means(sums.taps(), std::vector<Mean>(sums.bands().size()));
  for (std::size_t t = 0; t < sums.taps(); ++t) {
    for (const TapFits* fits : ears) {
      for (std::size_t s = 0; s < sums.segments(); ++s) {
        for (std::size_t b = 0; b < sums.bands().size(); ++b) {
          const TapFactor& f = fits->factor(t, s, b);
          if (!f.known) continue;
          // A loud segment counts more, since it is what is heard; a sure one too.
          means[t][b].add(f.factor, 1.0 / (f.variance + kSpread * kSpread));
        }
      }
    }
  }
  return means;
}

double weighted_median(std::vector<std::pair<double, double>> values) {
  std::ranges::sort(values);
  double all = 0.0, below = 0.0;
  for (const auto& [value, weight] : values) all += weight;
  for (const auto& [value, weight] : values) {
    below += weight;
    if (below >= 0.5 * all) return value;
  }
  return 0.0;
}

/// What the others have in a band: the median of their magnitudes, the phase of their sum.
std::optional<Complex> others_in(const std::vector<std::vector<Mean>>& means,
                                 const std::vector<bool>& apart, std::size_t tap,
                                 std::size_t band) {
  std::vector<std::pair<double, double>> magnitudes;
  Complex direction;
  for (std::size_t t = 0; t < means.size(); ++t) {
    const Mean& mean = means[t][band];
    if (t == tap || apart[t] || !mean.is_sure()) continue;
    const double size = std::abs(mean.mean());
    const double deviation = mean.deviation() / size;
    const double weight = 1.0 / (deviation * deviation + kSpread * kSpread);
    magnitudes.emplace_back(size, weight);
    direction += weight * mean.mean() / size;
  }
  if (magnitudes.empty() || direction == Complex()) return std::nullopt;
  return weighted_median(std::move(magnitudes)) * direction / std::abs(direction);
}

double radians_per_sample(double hz, int sr) {
  return 2.0 * std::numbers::pi * hz / sr;
}

double weight_of(const BandRatio& band) {
  const double size = std::max(std::abs(band.ratio), 1e-6);
  const double relative = band.deviation / size;
  return 1.0 / (relative * relative + kSpread * kSpread);
}

/// The best delay for either sign, and what is explained by it of what there is to explain.
struct DelayFit {
  double delay = 0.0, explained = -1.0;
};

DelayFit best_delay(const std::vector<BandRatio>& bands, int sr, double sign) {
  DelayFit best;
  double all = 0.0;
  for (const BandRatio& band : bands) all += weight_of(band);
  for (double delay = -kMostDelay; delay <= kMostDelay; delay += kDelayStep) {
    double sum = 0.0;
    for (const BandRatio& band : bands) {
      const double turn = radians_per_sample(band.hz, sr) * delay;
      sum += weight_of(band) * std::cos(std::arg(band.ratio) + turn);
    }
    if (sign * sum / all > best.explained) best = {delay, sign * sum / all};
  }
  return best;
}

/// Places the delay between two steps, by least squares on the phases that are left.
void refine(TapProfile& profile, int sr, double sign) {
  double moment = 0.0, square = 0.0;
  for (const BandRatio& band : profile.bands) {
    const double w = radians_per_sample(band.hz, sr);
    const Complex turned = sign * band.ratio * std::polar(1.0, w * profile.delay);
    const double phase = std::arg(turned);
    if (std::abs(phase) > 1.0) continue;
    moment += weight_of(band) * w * phase;
    square += weight_of(band) * w * w;
  }
  if (square <= 0.0) return;
  profile.delay -= moment / square;
  profile.delay_deviation = 1.0 / std::sqrt(square);
}

void describe(TapProfile& profile, int sr) {
  profile.known = !profile.bands.empty();
  if (!profile.known) return;
  const DelayFit upright = best_delay(profile.bands, sr, 1.0);
  const DelayFit turned = best_delay(profile.bands, sr, -1.0);
  profile.inverted =
      turned.explained > kClearlyTurned * upright.explained && turned.explained > 0.5;
  const DelayFit& best = profile.inverted ? turned : upright;
  profile.likeness = std::max(best.explained, 0.0);
  profile.delay = best.delay;
  Mean strength;
  for (const BandRatio& band : profile.bands) {
    const Complex along =
        band.ratio * std::polar(1.0, radians_per_sample(band.hz, sr) * best.delay);
    strength.add(along.real(), 1.0 / (band.deviation * band.deviation + kSpread * kSpread));
  }
  profile.strength = std::abs(strength.mean());
  profile.deviation = strength.deviation();
  refine(profile, sr, profile.inverted ? -1.0 : 1.0);
}

/// How loud a tap stands in a segment against its own mean, in the bands in which that is sure.
Mean level_in(const std::vector<const TapFits*>& ears, const std::vector<Mean>& means,
              std::size_t tap, std::size_t segment) {
  Mean level;
  for (const TapFits* fits : ears) {
    for (std::size_t b = 0; b < means.size(); ++b) {
      const TapFactor& f = fits->factor(tap, segment, b);
      if (!f.known || !means[b].is_sure()) continue;
      const Complex mean = means[b].mean();
      const double variance = f.variance / std::norm(mean) + kSpread * kSpread;
      level.add((f.factor / mean).real(), 1.0 / variance);
    }
  }
  return level;
}

void add_levels(std::vector<TapProfile>& profiles, const SpectralSums& sums,
                const std::vector<const TapFits*>& ears,
                const std::vector<std::vector<Mean>>& means, const std::vector<bool>& apart) {
  for (std::size_t s = 0; s < sums.segments(); ++s) {
    std::vector<Mean> levels;
    for (std::size_t t = 0; t < profiles.size(); ++t) {
      levels.push_back(level_in(ears, means[t], t, s));
    }
    const auto usable = [&](std::size_t t) {
      return levels[t].weight > 0.0 && levels[t].is_sure() && levels[t].mean().real() > 0.0;
    };
    for (std::size_t t = 0; t < profiles.size(); ++t) {
      if (!usable(t)) continue;
      std::vector<std::pair<double, double>> others;
      for (std::size_t o = 0; o < profiles.size(); ++o) {
        if (o != t && !apart[o] && usable(o))
          others.emplace_back(levels[o].mean().real(), levels[o].weight);
      }
      if (others.empty()) continue;
      const double own = levels[t].mean().real();
      profiles[t].levels.push_back(
          {s, 20.0 * std::log10(own / weighted_median(others)), 8.7 * levels[t].deviation() / own});
    }
  }
}

std::vector<TapProfile> describe_all(const SpectralSums& sums,
                                     const std::vector<std::vector<Mean>>& means,
                                     const std::vector<bool>& apart) {
  std::vector<TapProfile> profiles(sums.taps());
  for (std::size_t t = 0; t < sums.taps(); ++t) {
    for (std::size_t b = 0; b < sums.bands().size(); ++b) {
      if (means[t][b].weight == 0.0) continue;
      const auto others = others_in(means, apart, t, b);
      if (!others) continue;
      const double deviation = means[t][b].deviation() / std::abs(*others);
      if (deviation > kUnsure) continue;
      profiles[t].bands.push_back({sums.bands()[b].hz, means[t][b].mean() / *others, deviation});
    }
    describe(profiles[t], sums.sr());
  }
  return profiles;
}

bool stands_apart(const TapProfile& profile) {
  if (!profile.known) return false;
  const double sure = std::max(kLeastDelay, kSureBy * profile.delay_deviation);
  return profile.inverted || profile.likeness < kLeastLikeness ||
         profile.strength < kLeastStrength || std::abs(profile.delay) > sure;
}

/// The less, the farther a tap stands from the others.
double nearness(const TapProfile& profile) {
  if (profile.inverted) return -1.0;
  return profile.likeness * std::min(profile.strength, 1.0) -
         0.5 * std::abs(profile.delay) / kMostDelay;
}

}  // namespace

std::vector<TapProfile> tap_profiles(const SpectralSums& sums,
                                     const std::vector<const TapFits*>& ears) {
  const auto means = band_means(sums, ears);
  std::vector<bool> apart(sums.taps());
  auto profiles = describe_all(sums, means, apart);
  // The one that stands farthest apart first: it may be why the others seem to.
  for (std::size_t turn = 0; turn + 2 < sums.taps(); ++turn) {
    std::optional<std::size_t> worst;
    for (std::size_t t = 0; t < profiles.size(); ++t) {
      if (apart[t] || !stands_apart(profiles[t])) continue;
      if (!worst || nearness(profiles[t]) < nearness(profiles[*worst])) worst = t;
    }
    if (!worst) break;
    apart[*worst] = true;
    profiles = describe_all(sums, means, apart);
  }
  add_levels(profiles, sums, ears, means, apart);
  return profiles;
}

}  // namespace verdel::internal
