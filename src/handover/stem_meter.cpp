#include "handover/stem_meter.hpp"

#include <ebur128.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace verdel::internal {
namespace {

constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

struct Destroy {
  void operator()(ebur128_state* state) const { ebur128_destroy(&state); }
};

double db(double amplitude) {
  return 20.0 * std::log10(amplitude);
}

}  // namespace

struct StemMeter::State {
  std::unique_ptr<ebur128_state, Destroy> library;  // null where it knows no answer
  std::vector<double> interleaved;
  double peak = 0.0;
};

// The histogram keeps a count for every tenth of a decibel instead of a list of all blocks.
StemMeter::StemMeter(std::size_t channels, int sr) : state_(std::make_unique<State>()) {
  state_->library.reset(ebur128_init(
      static_cast<unsigned>(channels), static_cast<unsigned long>(sr),
      EBUR128_MODE_I | EBUR128_MODE_LRA | EBUR128_MODE_TRUE_PEAK | EBUR128_MODE_HISTOGRAM));
}

StemMeter::~StemMeter() = default;
StemMeter::StemMeter(StemMeter&&) noexcept = default;

void StemMeter::add(AudioView audio) {
  State& state = *state_;
  const std::size_t channels = audio.rows(), frames = audio.columns();
  state.interleaved.resize(channels * frames);
  for (std::size_t c = 0; c < channels; ++c) {
    const double* const row = audio.row(c).data();
    double* const out = state.interleaved.data() + c;
    for (std::size_t i = 0; i < frames; ++i) {
      state.peak = std::max(state.peak, std::abs(row[i]));
      out[i * channels] = row[i];
    }
  }
  if (!state.library) return;
  if (ebur128_add_frames_double(state.library.get(), state.interleaved.data(), frames) !=
      EBUR128_SUCCESS) {
    throw std::bad_alloc();
  }
}

StemLevels StemMeter::levels() const {
  const State& state = *state_;
  StemLevels levels{db(state.peak), kUnknown, kUnknown, kUnknown};
  if (!state.library) return levels;
  ebur128_loudness_global(state.library.get(), &levels.loudness_lufs);
  ebur128_loudness_range(state.library.get(), &levels.loudness_range_lu);
  double true_peak = 0.0;
  for (unsigned channel = 0; channel < state.library->channels; ++channel) {
    double peak = 0.0;
    ebur128_true_peak(state.library.get(), channel, &peak);
    true_peak = std::max(true_peak, peak);
  }
  levels.true_peak_dbtp = db(true_peak);
  return levels;
}

}  // namespace verdel::internal
