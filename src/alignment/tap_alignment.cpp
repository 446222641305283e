#include "alignment/tap_alignment.hpp"

#include <algorithm>
#include <atomic>
#include <optional>
#include <span>

#include "alignment/lag_search.hpp"
#include "support/errors.hpp"
#include "support/thread_pool.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kMostWorkers = 4;
// Samples taken together: small enough for several rows to stay in the cache.
constexpr std::size_t kTile = 8192;

// Calls work(row, first column, number of columns) for every tile of an array, in order.
template <class Work>
void for_each_tile(std::size_t rows, std::size_t columns, const StopToken& stop, Work work) {
  for (std::size_t row = 0; row < rows; ++row) {
    for (std::size_t first = 0; first < columns; first += kTile) {
      stop.check();
      work(row, first, std::min(kTile, columns - first));
    }
  }
}

template <class Sample>
void add(std::span<const Sample> values, std::span<double> sum) {
  for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += static_cast<double>(values[i]);
}

// The average of the channels, into `mono` [1][frames].
template <class Sample>
void make_mono(RowsView<const Sample> audio, AudioArray& mono, const StopToken& stop) {
  const auto channels = static_cast<double>(audio.rows());
  for_each_tile(1, audio.columns(), stop, [&](std::size_t, std::size_t first, std::size_t count) {
    const auto tile = mono.row(0).subspan(first, count);
    std::ranges::fill(tile, 0.0);
    for (std::size_t c = 0; c < audio.rows(); ++c) add(audio.row(c).subspan(first, count), tile);
    for (double& sample : tile) sample /= channels;
  });
}

// `room` is for one signal of the tap's length.
std::ptrdiff_t propose_lag(AudioView mono, StemView tap, int sr, AudioArray& room,
                           const StopToken& stop) {
  make_mono(tap, room, stop);
  return find_lag(mono.row(0), room.row(0), sr, 200.0, stop);
}

std::vector<std::ptrdiff_t> propose_lags(AudioView mix, const StemMap& taps, int sr,
                                         const Machine& machine, const StopToken& stop,
                                         const SongStorage& storage) {
  auto mono = storage.uninitialised<double>(1, mix.columns());
  make_mono(mix, mono, stop);
  const std::size_t workers =
      std::max<std::size_t>(1, std::min({machine.processors(), taps.size(), kMostWorkers}));
  std::optional<ThreadPool> pool;
  if (workers > 1) pool.emplace(workers, "verdel-alignment");
  std::vector<std::ptrdiff_t> lags(taps.size());
  std::atomic<std::size_t> next{0};
  run_indexed(pool ? &*pool : nullptr, workers, [&](std::size_t) {
    // One signal for all of a worker's taps: fresh pages cost more than the averaging.
    auto room = storage.uninitialised<double>(1, mix.columns());
    for (std::size_t i; (i = next++) < taps.size();) {
      lags[i] = propose_lag(mono.view(), taps[i].audio.view(), sr, room, stop);
    }
  });
  return lags;
}

AudioArray mix_minus_taps(AudioView mix, const StemMap& taps, const StopToken& stop,
                          const SongStorage& storage) {
  auto residual = storage.zeros<double>(mix.rows(), mix.columns());
  for_each_tile(mix.rows(), mix.columns(), stop,
                [&](std::size_t row, std::size_t first, std::size_t count) {
                  const auto rest = residual.row(row).subspan(first, count);
                  const auto whole = mix.row(row).subspan(first, count);
                  for (const auto& tap : taps) add(tap.audio.row(row).subspan(first, count), rest);
                  for (std::size_t i = 0; i < count; ++i) rest[i] = whole[i] - rest[i];
                });
  return residual;
}

double energy_of(AudioView audio, const StopToken& stop) {
  double energy = 0.0;
  for_each_tile(audio.rows(), audio.columns(), stop,
                [&](std::size_t row, std::size_t first, std::size_t count) {
                  double sum = 0.0;
                  for (const double sample : audio.row(row).subspan(first, count)) {
                    sum += sample * sample;
                  }
                  energy += sum;
                });
  return energy;
}

// The residual's energy if the tap became `aligned`: with delta = aligned - tap,
// |residual - delta|^2 is |residual|^2 - 2 residual . delta + |delta|^2.
double energy_after_move(double energy, AudioView residual, StemView tap, StemView aligned,
                         const StopToken& stop) {
  double dot = 0.0, delta_energy = 0.0;
  for_each_tile(
      tap.rows(), tap.columns(), stop, [&](std::size_t row, std::size_t first, std::size_t count) {
        const auto rest = residual.row(row).subspan(first, count);
        const auto before = tap.row(row).subspan(first, count);
        const auto after = aligned.row(row).subspan(first, count);
        double tile_dot = 0.0, tile_energy = 0.0;
        for (std::size_t i = 0; i < count; ++i) {
          const double delta = static_cast<double>(after[i]) - static_cast<double>(before[i]);
          tile_dot += rest[i] * delta;
          tile_energy += delta * delta;
        }
        dot += tile_dot;
        delta_energy += tile_energy;
      });
  return energy - (dot + dot) + delta_energy;
}

void subtract_move(StemView tap, StemView aligned, AudioArray& residual, const StopToken& stop) {
  for_each_tile(tap.rows(), tap.columns(), stop,
                [&](std::size_t row, std::size_t first, std::size_t count) {
                  const auto rest = residual.row(row).subspan(first, count);
                  const auto before = tap.row(row).subspan(first, count);
                  const auto after = aligned.row(row).subspan(first, count);
                  for (std::size_t i = 0; i < count; ++i) {
                    rest[i] -= static_cast<double>(after[i]) - static_cast<double>(before[i]);
                  }
                });
}

}  // namespace

StemArray align_tap(StemView a, std::ptrdiff_t lag, const SongStorage& storage) {
  const std::size_t n = a.columns();
  // Negating as unsigned holds for the most negative lag too.
  const auto distance =
      lag < 0 ? std::size_t{0} - static_cast<std::size_t>(lag) : static_cast<std::size_t>(lag);
  auto aligned = storage.zeros<float>(a.rows(), n);
  if (distance >= n) return aligned;
  for (std::size_t row = 0; row < a.rows(); ++row) {
    const auto from = a.row(row).subspan(lag < 0 ? distance : 0, n - distance);
    std::ranges::copy(from, aligned.row(row).subspan(lag < 0 ? 0 : distance).begin());
  }
  return aligned;
}

std::vector<AppliedLag> align_taps_to_mix(AudioView mix, StemMap& taps, int sr,
                                          const Machine& machine, const StopToken& stop,
                                          const SongStorage& storage) {
  for (const auto& tap : taps) {
    if (!tap.audio.view().same_shape(mix)) {
      throw ValueError("single-band taps must match the finite full mix");
    }
  }
  std::vector<AppliedLag> moves;
  if (mix.empty() || taps.empty()) return moves;
  const auto lags = propose_lags(mix, taps, sr, machine, stop, storage);
  // Most projects are in line; they need no residual.
  if (std::ranges::all_of(lags, [](std::ptrdiff_t lag) { return lag == 0; })) return moves;

  AudioArray residual = mix_minus_taps(mix, taps, stop, storage);
  double energy = energy_of(residual.view(), stop);
  for (std::size_t i = 0; i < taps.size(); ++i) {
    if (lags[i] == 0) continue;
    StemArray& tap = taps[i].audio;
    StemArray aligned = align_tap(tap.view(), lags[i], storage);
    const double new_energy =
        energy_after_move(energy, residual.view(), tap.view(), aligned.view(), stop);
    // Written so that energies that are not numbers move nothing.
    if (!(new_energy < energy)) continue;
    subtract_move(tap.view(), aligned.view(), residual, stop);
    tap = std::move(aligned);
    moves.push_back({taps[i].name, lags[i]});
    energy = std::max(new_energy, 0.0);
  }
  return moves;
}

}  // namespace verdel::internal
