#include "delivery/coordinated_float32.hpp"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <limits>
#include <span>
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

template <class Function>
void for_each_block(AudioView mix, const StopToken& stop, Function function) {
  for (std::size_t channel = 0; channel < mix.rows(); ++channel) {
    for (std::size_t first = 0; first < mix.columns(); first += kBlock) {
      stop.check();
      function(Block{channel, first, std::min(kBlock, mix.columns() - first)});
    }
  }
}

// Once a value is not a number, the largest is not one either: a fault may not pass for a null.
void raise(double& largest, double value) {
  if (value > largest || value != value) largest = value;
}

float* samples_of(NamedStem<Array2D<float>>& stem, const Block& block) {
  return stem.audio.row(block.channel).data() + block.first;
}

void round_stems(const StemViews& est, const Block& block, DeliveredStems& delivered) {
  for (std::size_t stem = 0; stem < est.size(); ++stem) {
    const double* source = est[stem].audio.row(block.channel).data() + block.first;
    float* target = samples_of(delivered[stem], block);
    for (std::size_t i = 0; i < block.count; ++i) target[i] = static_cast<float>(source[i]);
  }
}

// The mix minus the sum of the delivered stems, added up in stem order as a listener's player or
// the proof on the written files does.
void residual_of(DeliveredStems& delivered, AudioView mix, const Block& block, Scratch& scratch) {
  double* const residual = scratch.residual.data();
  std::fill_n(residual, block.count, 0.0);
  for (auto& stem : delivered) {
    const float* samples = samples_of(stem, block);
    for (std::size_t i = 0; i < block.count; ++i) residual[i] += static_cast<double>(samples[i]);
  }
  const double* target = mix.row(block.channel).data() + block.first;
  for (std::size_t i = 0; i < block.count; ++i) residual[i] = target[i] - residual[i];
}

void choose_owners(DeliveredStems& delivered, const Block& block, Scratch& scratch) {
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
void hand_over(DeliveredStems& delivered, const Block& block, const Scratch& scratch,
               double& largest_step) {
  for (std::size_t i = 0; i < block.count; ++i) {
    float& sample = samples_of(delivered[scratch.owner[i]], block)[i];
    const auto before = static_cast<double>(sample);
    sample = static_cast<float>(before + scratch.residual[i]);
    raise(largest_step, std::abs(static_cast<double>(sample) - before));
  }
}

void coordinate(DeliveredStems& delivered, AudioView mix, double mix_peak, Scratch& scratch,
                const StopToken& stop) {
  double largest_step = 0.0;
  for_each_block(mix, stop, [&](const Block& block) {
    residual_of(delivered, mix, block, scratch);
    choose_owners(delivered, block, scratch);
    hand_over(delivered, block, scratch, largest_step);
  });
  if (!(largest_step <= kLargestStepPerPeak * std::max(mix_peak, kSmallestPeak))) {
    throw RuntimeError("coordinated FLOAT32 delivery exceeded its rounding-only bound");
  }
}

}  // namespace

DeliveredStems _coordinated_float32_delivery(const StemViews& est, AudioView mix,
                                             double null_threshold, const StopToken& stop) {
  if (est.size() > kMostStems) {
    throw ValueError("cannot deliver more than 65536 stems at once");
  }
  DeliveredStems delivered;
  delivered.reserve(est.size());
  for (const auto& stem : est) {
    assert(mix.same_shape(stem.audio));
    delivered.push_back({stem.name, Array2D<float>::uninitialised(mix.rows(), mix.columns())});
  }
  const bool measured = null_threshold <= kDeepestUncoordinated;
  Scratch scratch;
  double largest_residual = 0.0, mix_peak = 0.0;
  for_each_block(mix, stop, [&](const Block& block) {
    round_stems(est, block, delivered);
    if (!measured) return;
    residual_of(delivered, mix, block, scratch);
    for (std::size_t i = 0; i < block.count; ++i) {
      raise(largest_residual, std::abs(scratch.residual[i]));
      raise(mix_peak, std::abs(mix.row(block.channel)[block.first + i]));
    }
  });
  const double target = std::pow(10.0, null_threshold / 20.0);
  if (!measured || delivered.empty() || largest_residual < target) return delivered;
  coordinate(delivered, mix, mix_peak, scratch, stop);
  return delivered;
}

}  // namespace verdel::internal
