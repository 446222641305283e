#include "diagnosis/placing.hpp"

#include <algorithm>
#include <cmath>

#include "alignment/lag_search.hpp"
#include "alignment/tap_alignment.hpp"
#include "chain/chain_lag.hpp"
#include "diagnosis/tap_profile.hpp"

namespace verdel::internal {
namespace {

constexpr double kGoes = 0.8;    // likeness times strength of a tap that lies where it belongs
constexpr double kBetter = 1.5;  // by how much another place must be better
constexpr double kPieceSeconds = 8.0;
constexpr double kNearLineSeconds = 0.0004;
constexpr double kEnoughPieces = 0.6;
constexpr std::size_t kFewestPieces = 4;

template <class Sample>
std::vector<double> mono_of(RowsView<const Sample> audio) {
  std::vector<double> mono(audio.columns());
  for (std::size_t c = 0; c < audio.rows(); ++c) {
    const auto row = audio.row(c);
    for (std::size_t i = 0; i < mono.size(); ++i) mono[i] += static_cast<double>(row[i]);
  }
  return mono;
}

/// How well every tap goes with the mix, 0 to 1.
std::vector<double> goes_with(const SpectralSums& sums, const std::vector<bool>& left_out) {
  std::vector<TapFits> fits;
  fits.emplace_back(sums, Ear::kLeft, left_out);
  if (sums.ears() > 1) {
    fits.emplace_back(sums, Ear::kRight, left_out);
    fits.emplace_back(sums, Ear::kSide, left_out);
  }
  std::vector<double> values(sums.taps(), -1.0);
  const auto hear = [&](const std::vector<const TapFits*>& ears) {
    const auto profiles = tap_profiles(sums, ears);
    for (std::size_t t = 0; t < values.size(); ++t) {
      if (!profiles[t].known) continue;
      values[t] = std::max(values[t], profiles[t].likeness * std::min(profiles[t].strength, 1.0));
    }
  };
  // One side alone may be turned over, and then both together go with nothing.
  for (const TapFits& one : fits) hear({&one});
  if (fits.size() > 1) hear({&fits[0], &fits[1]});
  // Who has nobody beside him has no measure, and stays.
  for (double& value : values) value = value < 0.0 ? 1.0 : value;
  return values;
}

/// Piece by piece: a lag that runs along a line, or takes one step.
std::optional<Drift> find_drift(std::span<const double> mix, std::span<const double> tap, int sr,
                                const StopToken& stop) {
  const auto piece = static_cast<std::size_t>(kPieceSeconds * sr);
  std::vector<std::pair<double, double>> lags;  // s, samples
  for (std::size_t first = 0; first + piece <= mix.size(); first += piece) {
    const auto part = tap.subspan(first, piece);
    double energy = 0.0;
    for (const double x : part) energy += x * x;
    if (energy < 1e-8 * static_cast<double>(piece)) continue;
    const auto lag = _find_lag_window(mix.subspan(first, piece), part, sr, 200.0, stop);
    lags.emplace_back((static_cast<double>(first) + 0.5 * static_cast<double>(piece)) / sr,
                      -static_cast<double>(lag));
  }
  if (lags.size() < kFewestPieces) return std::nullopt;
  const double near = kNearLineSeconds * sr;
  const auto enough = [&](auto line, std::size_t from, std::size_t to) {
    std::size_t on = 0;
    for (std::size_t i = from; i < to; ++i)
      on += std::abs(lags[i].second - line(lags[i].first)) <= near;
    return static_cast<double>(on) >= kEnoughPieces * static_cast<double>(to - from) ? on : 0;
  };
  // The line through two pieces that passes by most of the others.
  std::size_t most = 0;
  std::optional<Drift> found;
  for (std::size_t i = 0; i < lags.size(); ++i) {
    for (std::size_t j = i + 2; j < lags.size(); ++j) {
      const double slope = (lags[j].second - lags[i].second) / (lags[j].first - lags[i].first);
      const auto line = [&](double at) { return lags[i].second + slope * (at - lags[i].first); };
      const std::size_t on = enough(line, 0, lags.size());
      const double run = std::abs(slope) * (lags.back().first - lags.front().first);
      if (on <= most || run < 2.0 * near) continue;
      most = on;
      found = Drift{.samples_per_second = slope,
                    .before = std::lround(line(lags.front().first)),
                    .after = std::lround(line(lags.back().first))};
    }
  }
  // Or one lag up to a place and another behind it.
  for (std::size_t cut = 2; cut + 2 <= lags.size(); ++cut) {
    const auto median = [&](std::size_t from, std::size_t to) {
      std::vector<double> part;
      for (std::size_t i = from; i < to; ++i) part.push_back(lags[i].second);
      std::ranges::nth_element(part, part.begin() + static_cast<std::ptrdiff_t>(part.size() / 2));
      return part[part.size() / 2];
    };
    const double before = median(0, cut), after = median(cut, lags.size());
    if (std::abs(before - after) < 2.0 * near) continue;
    const std::size_t first = enough([&](double) { return before; }, 0, cut);
    const std::size_t second = enough([&](double) { return after; }, cut, lags.size());
    if (first == 0 || second == 0 || first + second <= most) continue;
    most = first + second;
    found = Drift{.samples_per_second = 0.0,
                  .jump_at = 0.5 * (lags[cut - 1].first + lags[cut].first),
                  .before = std::lround(before),
                  .after = std::lround(after)};
  }
  return found;
}

class Search {
 public:
  explicit Search(const PlacingJob& job)
      : job_(job), mono_(mono_of(job.mix)), late_(job.taps.size()), moved_(job.taps.size()) {}

  Placing run() {
    SpectralSums sums = sums_of();
    std::vector<double> goes = goes_with(sums, job_.left_out);
    std::vector<bool> lost(late_.size());
    for (std::size_t t = 0; t < late_.size(); ++t) {
      lost[t] = !job_.left_out[t] && goes[t] < kGoes;
    }
    const ChainJob chain{.mix = job_.mix, .sr = job_.sr, .pool = job_.pool, .stop = job_.stop};
    if (std::ranges::find(lost, true) != lost.end()) {
      const CoherentLag coherent(chain, reader_of(job_.mix));
      try_places(lost, goes, sums,
                 [&](std::size_t t) { return coherent.against(reader_of(job_.taps[t].audio)); });
    }
    for (const double ms : {200.0, 1000.0 * kWidestLagSeconds}) {
      try_places(lost, goes, sums, [&](std::size_t t) {
        return _find_lag_window(mono_, mono_of(job_.taps[t].audio), job_.sr, ms, job_.stop);
      });
    }
    Placing placing{std::vector<Place>(late_.size()), std::move(sums)};
    for (std::size_t t = 0; t < late_.size(); ++t) {
      Place& place = placing.places[t];
      place.late = late_[t];
      if (!lost[t]) continue;
      place.drift = find_drift(mono_, mono_of(job_.taps[t].audio), job_.sr, job_.stop);
      place.found = place.drift || goes[t] > kFaint;
    }
    return placing;
  }

 private:
  static constexpr double kFaint = 0.15;

  SpectralSums sums_of() const {
    StemViews taps = job_.taps;
    for (std::size_t t = 0; t < taps.size(); ++t) {
      if (late_[t] != 0) taps[t].audio = moved_[t].view();
    }
    return SpectralSums(job_.mix, taps, job_.sr, job_.pool, job_.stop);
  }

  /// Moves every tap that is lost to where `propose` says, and lets it stay there if it goes
  /// better.
  template <class Propose>
  void try_places(std::vector<bool>& lost, std::vector<double>& goes, SpectralSums& sums,
                  Propose propose) {
    for (std::size_t t = 0; t < lost.size(); ++t) {
      if (!lost[t]) continue;
      const std::ptrdiff_t shift = propose(t);
      if (-shift == late_[t]) continue;
      const std::ptrdiff_t before = late_[t];
      move(t, shift);
      SpectralSums tried = sums_of();
      const auto better = goes_with(tried, job_.left_out);
      if (better[t] > kBetter * goes[t]) {
        sums = std::move(tried);
        goes = better;
        lost[t] = goes[t] < kGoes;
      } else {
        move(t, -before);
      }
    }
  }
  void move(std::size_t tap, std::ptrdiff_t shift) {
    late_[tap] = -shift;
    moved_[tap] = shift == 0 ? StemArray() : align_tap(job_.taps[tap].audio, shift);
  }

  const PlacingJob& job_;
  std::vector<double> mono_;
  std::vector<std::ptrdiff_t> late_;
  std::vector<StemArray> moved_;
};

}  // namespace

Placing place_taps(const PlacingJob& job) {
  return Search(job).run();
}

}  // namespace verdel::internal
