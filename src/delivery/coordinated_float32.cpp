#include "delivery/coordinated_float32.hpp"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <limits>
#include <mutex>
#include <utility>
#include <vector>

#include "signal/profile.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

// Samples per block: its residual, its owners and the stems' stretches stay in the second cache.
constexpr std::size_t kBlock = 4096;

// dB; above it a null needs no coordination
constexpr double kDeepestUncoordinated = Profile{}.null_threshold;
constexpr std::size_t kMostStems = 65536;  // an owner is a 16-bit index
constexpr double kLargestStepPerPeak =
    8.0 * static_cast<double>(std::numeric_limits<float>::epsilon());
static_assert(kLargestStepPerPeak == 0x1p-20);
constexpr double kSmallestPeak = 1.0;

// A stretch of one channel.
struct Block {
  std::size_t channel, first, count;
};

// One value per sample of a block; on the heap, because a thread's stack may be small.
struct Scratch {
  std::vector<double> residual = std::vector<double>(kBlock);
  std::vector<float> loudest = std::vector<float>(kBlock);
  std::vector<std::uint16_t> owner = std::vector<std::uint16_t>(kBlock);
};

// Once a value is not a number, the largest is not one either: a fault may not pass for a null.
void raise(double& largest, double value) {
  if (value > largest || value != value) largest = value;
}

float* samples_of(NamedStem<StemArray>& stem, const Block& block) {
  return stem.audio.row(block.channel).data() + block.first;
}

// `stems`: those of the block.
void round_stems(RowsView<const double> stems, const Block& block, StemMap& delivered) {
  for (std::size_t stem = 0; stem < delivered.size(); ++stem) {
    const double* source = stems.row(stem).data();
    float* target = samples_of(delivered[stem], block);
    for (std::size_t i = 0; i < block.count; ++i) target[i] = static_cast<float>(source[i]);
  }
}

// The mix minus the sum of the delivered stems, added up in stem order as a listener's player or
// the proof on the written files does.
void residual_of(StemMap& delivered, AudioView mix, const Block& block, Scratch& scratch) {
  double* const residual = scratch.residual.data();
  std::fill_n(residual, block.count, 0.0);
  for (auto& stem : delivered) {
    const float* samples = samples_of(stem, block);
    for (std::size_t i = 0; i < block.count; ++i) residual[i] += static_cast<double>(samples[i]);
  }
  const double* target = mix.row(block.channel).data() + block.first;
  for (std::size_t i = 0; i < block.count; ++i) residual[i] = target[i] - residual[i];
}

void choose_owners(StemMap& delivered, const Block& block, Scratch& scratch) {
  float* const loudest = scratch.loudest.data();
  std::uint16_t* const owner = scratch.owner.data();
  std::fill_n(loudest, block.count, 0.0f);
  std::fill_n(owner, block.count, std::uint16_t{0});
  for (std::size_t stem = 0; stem < delivered.size(); ++stem) {
    const float* samples = samples_of(delivered[stem], block);
    const auto index = static_cast<std::uint16_t>(stem);
    for (std::size_t i = 0; i < block.count; ++i) {
      const float magnitude = std::abs(samples[i]);
      const bool louder = magnitude > loudest[i];
      owner[i] = louder ? index : owner[i];
      loudest[i] = louder ? magnitude : loudest[i];
    }
  }
}

// Gives each sample's residual to its owner; raises `largest_step` to the largest change.
void give_to_owners(StemMap& delivered, const Block& block, Scratch& scratch,
                    double& largest_step) {
  choose_owners(delivered, block, scratch);
  for (std::size_t i = 0; i < block.count; ++i) {
    float& sample = samples_of(delivered[scratch.owner[i]], block)[i];
    const auto before = static_cast<double>(sample);
    sample = static_cast<float>(before + scratch.residual[i]);
    raise(largest_step, std::abs(static_cast<double>(sample) - before));
  }
}

}  // namespace

struct CoordinatedStems::State {
  State(std::vector<std::string> stem_names, AudioView whole, double null_threshold,
        const SongStorage& storage)
      : names(std::move(stem_names)),
        mix(whole),
        measured(null_threshold <= kDeepestUncoordinated && !names.empty()),
        target(std::pow(10.0, null_threshold / 20.0)) {
    for (const std::string& name : names) {
      delivered.push_back({name, storage.uninitialised<float>(mix.rows(), mix.columns())});
    }
  }

  void take_block(const Block& block, RowsView<const double> stems, Scratch& scratch);

  std::vector<std::string> names;
  AudioView mix;
  bool measured;
  double target;
  StemMap delivered;
  /// Whether plain rounding is too coarse, which one sample decides for all. Blocks that came
  /// before it wait, rounded plainly, and are looked at again at the end.
  std::atomic<bool> is_coarse = false;
  std::mutex mutex;  // of what follows
  std::vector<Block> waiting;
  double mix_peak = 0.0, largest_step = 0.0;
};

void CoordinatedStems::State::take_block(const Block& block, RowsView<const double> stems,
                                         Scratch& scratch) {
  round_stems(stems, block, delivered);
  if (!measured) return;
  residual_of(delivered, mix, block, scratch);
  double residual_peak = 0.0, peak = 0.0;
  for (std::size_t i = 0; i < block.count; ++i) {
    raise(residual_peak, std::abs(scratch.residual[i]));
    raise(peak, std::abs(mix.row(block.channel)[block.first + i]));
  }
  if (!(residual_peak < target)) is_coarse = true;
  double step = 0.0;
  const bool waits = !is_coarse;
  if (!waits) give_to_owners(delivered, block, scratch, step);
  const std::lock_guard lock(mutex);
  if (waits) waiting.push_back(block);
  raise(mix_peak, peak);
  raise(largest_step, step);
}

CoordinatedStems::CoordinatedStems(std::vector<std::string> names, AudioView mix,
                                   double null_threshold, const SongStorage& storage) {
  if (names.size() > kMostStems) {
    throw ValueError("cannot deliver more than 65536 stems at once");
  }
  state_ = std::make_unique<State>(std::move(names), mix, null_threshold, storage);
}

CoordinatedStems::CoordinatedStems(CoordinatedStems&&) noexcept = default;
CoordinatedStems::~CoordinatedStems() = default;

const std::vector<std::string>& CoordinatedStems::names() const {
  return state_->names;
}

void CoordinatedStems::take(std::size_t channel, std::size_t first, RowsView<const double> stems) {
  assert(stems.rows() == state_->names.size());
  assert(first + stems.columns() <= state_->mix.columns());
  Scratch scratch;
  for (std::size_t done = 0; done < stems.columns(); done += kBlock) {
    const std::size_t count = std::min(kBlock, stems.columns() - done);
    state_->take_block({channel, first + done, count}, stems.column_range(done, done + count),
                       scratch);
  }
}

StemMap CoordinatedStems::finish(const StopToken& stop) {
  State& state = *state_;
  if (state.is_coarse) {
    Scratch scratch;
    for (const Block& block : state.waiting) {
      stop.check();
      residual_of(state.delivered, state.mix, block, scratch);
      give_to_owners(state.delivered, block, scratch, state.largest_step);
    }
    const double bound = kLargestStepPerPeak * std::max(state.mix_peak, kSmallestPeak);
    if (!(state.largest_step <= bound)) {
      throw RuntimeError("coordinated FLOAT32 delivery exceeded its rounding-only bound");
    }
  }
  return std::move(state.delivered);
}

}  // namespace verdel::internal
