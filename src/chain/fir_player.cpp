#include "chain/fir_player.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <memory>
#include <type_traits>

#include "signal/instruction_sets.hpp"
#include "support/scratch_pool.hpp"

namespace verdel::internal {
namespace {

bool is_silent(const std::vector<double>& response) {
  return std::ranges::all_of(response, [](double v) { return v == 0.0; });
}

constexpr std::size_t kBlocksPerTask = 4;

/// to = x * h, complex values as pairs.
template <class Real>
VERDEL_INLINE void multiply(const Real* __restrict x, const Real* __restrict h, std::size_t count,
                            Real* __restrict to) {
  for (std::size_t k = 0; k < count; ++k) {
    to[2 * k] = x[2 * k] * h[2 * k] - x[2 * k + 1] * h[2 * k + 1];
    to[2 * k + 1] = x[2 * k] * h[2 * k + 1] + x[2 * k + 1] * h[2 * k];
  }
}

template <class Real>
VERDEL_INLINE void zip(const Real* p, const Real* q, std::size_t count, Real* __restrict pairs) {
  for (std::size_t i = 0; i < count; ++i) {
    pairs[2 * i] = p[i];
    pairs[2 * i + 1] = q[i];
  }
}

template <class Real>
VERDEL_INLINE void unzip(const Real* pairs, std::size_t count, Real* __restrict p,
                         Real* __restrict q) {
  for (std::size_t i = 0; i < count; ++i) {
    p[i] = pairs[2 * i];
    q[i] = pairs[2 * i + 1];
  }
}

/// Complex values as pairs.
template <class Real>
Real* parts(Array2D<std::complex<Real>>& values) {
  return reinterpret_cast<Real*>(values.data());
}

/// to += conj x(-k) * h(k).
template <class Real>
void add_mirrored(std::span<const std::complex<Real>> x, std::span<const std::complex<Real>> h,
                  std::span<std::complex<Real>> to) {
  to[0] += std::conj(x[0]) * h[0];
  for (std::size_t k = 1; k < to.size(); ++k) to[k] += std::conj(x[to.size() - k]) * h[k];
}

/// How audio is cut for a filter.
struct BlockPlan {
  std::size_t length = 0, block = 0, step = 0;  ///< of a transform, what it gives, what two do

  // The transforms are at their best with five times a power of two.
  explicit BlockPlan(const ChainFir& fir)
      : length(5 * std::bit_ceil(fir.length)),
        block(length - fir.length),
        step(fir.channels == 1 ? 2 * block : block) {}
  std::size_t steps(std::size_t frames) const { return (frames + step - 1) / step; }
  std::size_t tasks(std::size_t frames) const {
    return (steps(frames) + kBlocksPerTask - 1) / kBlocksPerTask;
  }
};

/// One of two signals that are played at once: a stretch of a row, from its sample `first` on.
struct Lane {
  std::size_t row = 0, first = 0;
};

/// A stretch after and ahead of the filters.
template <class Real>
struct Played {
  std::span<const Real> samples, given;
};

/// Plays two real signals as one complex one z, two channels or two blocks of the only one. All
/// that filters with real responses can make of them is straight(k) z(k) + crossed(k) conj z(-k).
/// Single precision lies 130 dB under the sound, deep enough for everything that is only measured.
template <class Real>
class Player {
  using Complex = std::complex<Real>;
  using Signal = Array2D<Complex>;

  /// For the work on one block.
  struct Room {
    Array2D<Real> given, rows;
    Signal time, spectrum, output;

    explicit Room(std::size_t n)
        : given(Array2D<Real>::uninitialised(2, n)),
          rows(Array2D<Real>::uninitialised(2, n)),
          time(Signal::uninitialised(1, n)),
          spectrum(Signal::uninitialised(1, n)),
          output(Signal::uninitialised(1, n)) {}
  };

 public:
  Player(const ChainFir& fir, std::ptrdiff_t lag)
      : fir_(fir), lag_(lag), plan_(fir), transform_(plan_.length) {
    const auto& h = fir.responses;
    if (fir.channels == 1) {
      straight_ = spectrum_of([&](std::size_t i) { return std::complex(h[0][i], 0.0); });
      return;
    }
    straight_ = spectrum_of(
        [&](std::size_t i) { return 0.5 * std::complex(h[0][i] + h[3][i], h[2][i] - h[1][i]); });
    if (h[0] == h[3] && is_silent(h[1]) && is_silent(h[2])) return;
    crossed_ = spectrum_of(
        [&](std::size_t i) { return 0.5 * std::complex(h[0][i] - h[3][i], h[2][i] + h[1][i]); });
  }

  /// Calls give(task, lane, played) for every stretch.
  template <class Give>
  void play_all(HeardView audio, const ChainJob& job, Give give) const {
    ScratchPool<Room> rooms([&] { return std::make_unique<Room>(plan_.length); });
    run_indexed(job.pool, plan_.tasks(audio.columns()), [&](std::size_t task) {
      const auto lease = rooms.lease();
      const std::size_t first = task * kBlocksPerTask;
      const std::size_t stop = std::min(plan_.steps(audio.columns()), first + kBlocksPerTask);
      for (std::size_t i = first; i < stop; ++i) {
        job.stop.check();
        const auto lanes = lanes_of(i * plan_.step);
        play_block(audio, lanes, *lease);
        for (std::size_t k = 0; k < 2; ++k) {
          if (lanes[k].first >= audio.columns()) continue;
          give(task, lanes[k], played(*lease, k, audio.columns() - lanes[k].first));
        }
      }
    });
  }

 private:
  std::array<Lane, 2> lanes_of(std::size_t first) const {
    if (fir_.channels == 1) return {Lane{0, first}, Lane{0, first + plan_.block}};
    return {Lane{0, first}, Lane{1, first}};
  }

  void play_block(HeardView audio, const std::array<Lane, 2>& lanes, Room& room) const {
    for (std::size_t k = 0; k < 2; ++k) {
      take(audio.row(lanes[k].row), lanes[k].first, room.given.row(k));
    }
    run_kernel<zip<Real>>(room.given.row(0).data(), room.given.row(1).data(), plan_.length,
                          parts(room.time));
    transform_.forward(room.time.data(), room.spectrum.data());
    filter(room.spectrum.flat(), room.output.flat());
    transform_.inverse(room.output.data(), room.time.data());
    run_kernel<unzip<Real>>(parts(room.time), plan_.length, room.rows.row(0).data(),
                            room.rows.row(1).data());
  }

  template <class Response>
  Signal spectrum_of(Response response) const {
    const double scale = 1.0 / static_cast<double>(transform_.length());
    auto time = Signal::zeros(1, transform_.length());
    for (std::size_t i = 0; i < fir_.length; ++i) {
      const std::complex<double> value = scale * response(i);
      time.data()[i] = {static_cast<Real>(value.real()), static_cast<Real>(value.imag())};
    }
    auto spectrum = Signal::uninitialised(1, transform_.length());
    transform_.forward(time.data(), spectrum.data());
    return spectrum;
  }

  void filter(std::span<const Complex> input, std::span<Complex> output) const {
    run_kernel<multiply<Real>>(reinterpret_cast<const Real*>(input.data()),
                               reinterpret_cast<const Real*>(straight_.data()), input.size(),
                               reinterpret_cast<Real*>(output.data()));
    if (!crossed_.empty()) add_mirrored<Real>(input, crossed_.flat(), output);
  }

  // Sample j of a row of `lanes` is sample first + centre - length + j of the audio as it is moved:
  // the output at `first` is then found at `length`, all of its input before it.
  void take(std::span<const float> row, std::size_t first, std::span<Real> lane) const {
    const auto begin = static_cast<std::ptrdiff_t>(first + fir_.centre) -
                       static_cast<std::ptrdiff_t>(fir_.length) - lag_;
    const auto size = static_cast<std::ptrdiff_t>(row.size());
    const auto from = std::clamp<std::ptrdiff_t>(begin, 0, size);
    const auto to =
        std::clamp<std::ptrdiff_t>(begin + static_cast<std::ptrdiff_t>(lane.size()), from, size);
    std::ranges::fill(lane, Real{0});
    if (from == to) return;
    std::transform(row.begin() + from, row.begin() + to, lane.begin() + (from - begin),
                   [](float sample) { return static_cast<Real>(sample); });
  }

  Played<Real> played(const Room& room, std::size_t lane, std::size_t frames) const {
    const std::size_t count = std::min(plan_.block, frames);
    return {.samples = room.rows.row(lane).subspan(fir_.length, count),
            .given = room.given.row(lane).subspan(fir_.length - fir_.centre, count)};
  }

  const ChainFir& fir_;
  std::ptrdiff_t lag_;
  BlockPlan plan_;
  ComplexTransform<Real> transform_;
  Signal straight_, crossed_;
};

template <class Real>
void play_as(HeardView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
             Heard& result) {
  Player<Real>(fir, lag).play_all(
      audio, job, [&](std::size_t, const Lane& lane, const Played<Real>& played) {
        std::ranges::transform(played.samples, result.row(lane.row).data() + lane.first,
                               [](Real sample) { return static_cast<float>(sample); });
      });
}

std::vector<double> convolved(const std::vector<double>& a, const std::vector<double>& b) {
  const std::size_t length = a.size() + b.size() - 1;
  const RealTransform<double> transform(std::bit_ceil(length));
  auto time = Array2D<double>::zeros(2, transform.length());
  auto spectra = Array2D<std::complex<double>>::uninitialised(2, std::bit_ceil(transform.bins()));
  std::ranges::copy(a, time.row(0).begin());
  std::ranges::copy(b, time.row(1).begin());
  for (std::size_t row = 0; row < 2; ++row) {
    transform.forward(time.row(row).data(), spectra.row(row).data());
  }
  for (std::size_t k = 0; k < transform.bins(); ++k) spectra.row(0)[k] *= spectra.row(1)[k];
  transform.inverse(spectra.data(), time.data());
  std::vector<double> result(time.data(), time.data() + length);
  for (double& value : result) value /= static_cast<double>(transform.length());
  return result;
}

}  // namespace

ChainFir in_a_row(const ChainFir& first, const ChainFir& second) {
  const std::size_t channels = first.channels;
  ChainFir both{.channels = channels,
                .length = first.length + second.length - 1,
                .centre = first.centre + second.centre,
                .responses = {}};
  for (std::size_t out = 0; out < channels; ++out) {
    for (std::size_t in = 0; in < channels; ++in) {
      std::vector<double> sum(both.length);
      for (std::size_t between = 0; between < channels; ++between) {
        const auto& to = first.responses[between * channels + in];
        const auto& from = second.responses[out * channels + between];
        if (is_silent(to) || is_silent(from)) continue;
        const auto part = convolved(to, from);
        for (std::size_t i = 0; i < sum.size(); ++i) sum[i] += part[i];
      }
      both.responses.push_back(std::move(sum));
    }
  }
  return both;
}

void play(HeardView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
          StemArray& result) {
  play_as<double>(audio, lag, fir, job, result);
}

void play_to_measure(HeardView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
                     Heard& result) {
  play_as<float>(audio, lag, fir, job, result);
}

void play_to_measure(HeardView audio, const ChainFir& fir, const ChainJob& job, Heard& result) {
  play_as<float>(audio, 0, fir, job, result);
}

std::size_t play_tasks(HeardView audio, const ChainFir& fir) {
  return BlockPlan(fir).tasks(audio.columns());
}

void play_to_measure(HeardView audio, std::ptrdiff_t lag, const ChainFir& fir, const ChainJob& job,
                     const std::function<void(const PlayedStretch&)>& take) {
  Player<float>(fir, lag).play_all(
      audio, job, [&](std::size_t task, const Lane& lane, const Played<float>& played) {
        take({task, lane.row, lane.first, played.samples, played.given});
      });
}

}  // namespace verdel::internal
