#include "chain/gain_sums.hpp"

#include <algorithm>

#include "signal/instruction_sets.hpp"

namespace verdel::internal {
namespace {

// Whole vectors, and a whole number of turns of both halves.
constexpr std::size_t kLanes = 16;

const float* flat(const PairTransform::Spectrum& values) {
  return reinterpret_cast<const float*>(values.data());
}

VERDEL_INLINE void multiply_pairs(const float* __restrict p, const float* __restrict q,
                                  std::size_t count, float* __restrict out) {
  for (std::size_t i = 0; i < count; ++i) {
    out[i] = p[2 * i] * q[2 * i] + p[2 * i + 1] * q[2 * i + 1];
  }
}

// Bins 1 .. frame / 2 - 1 and those that mirror them.
VERDEL_INLINE void fold(const float* __restrict pairs, std::size_t frame, float* __restrict out) {
  const float* const mirrored = pairs + frame;
  for (std::ptrdiff_t k = 1; k < static_cast<std::ptrdiff_t>(frame / 2); ++k) {
    out[k] = 0.5F * (pairs[k] + mirrored[-k]);
  }
}

VERDEL_INLINE void add_squares(const float* __restrict values, std::size_t count,
                               float* __restrict sums) {
  for (std::size_t i = 0; i < count; ++i) sums[i] += values[i] * values[i];
}

VERDEL_INLINE void weigh(const float* __restrict weights, const float* __restrict values,
                         std::size_t count, float* __restrict lanes) {
  float sums[kLanes] = {};
  for (std::size_t i = 0; i < count; i += kLanes) {
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
      sums[lane] += weights[i + lane] * values[i + lane];
    }
  }
  std::copy_n(sums, kLanes, lanes);
}

std::size_t whole_vectors(std::size_t bins) {
  return (bins + kLanes - 1) / kLanes * kLanes;
}

}  // namespace

BinProducts::BinProducts(std::size_t frame)
    : pairs_(Array2D<float>::uninitialised(1, frame)),
      folded_(Array2D<float>::zeros(3, whole_vectors(frame / 2 + 1))) {}

void BinProducts::set(const PairTransform::Spectrum& e, const PairTransform::Spectrum& t) {
  const std::size_t frame = pairs_.columns();
  const float* const factors[3][2] = {{flat(e), flat(t)}, {flat(t), flat(t)}, {flat(e), flat(e)}};
  for (std::size_t quantity = 0; quantity < 3; ++quantity) {
    float* const out = folded_.row(quantity).data();
    run_kernel<multiply_pairs>(factors[quantity][0], factors[quantity][1], frame, pairs_.data());
    run_kernel<fold>(pairs_.data(), frame, out);
    out[0] = pairs_.data()[0];
    out[frame / 2] = pairs_.data()[frame / 2];
  }
}

void PowerSums::add(const PairTransform::Spectrum& spectrum) {
  run_kernel<add_squares>(flat(spectrum), sums_.size(), sums_.data());
}

std::vector<double> PowerSums::by_bin() const {
  std::vector<double> bins(frame_ / 2 + 1);
  const auto pair = [&](std::size_t k) {
    return static_cast<double>(sums_[2 * k]) + static_cast<double>(sums_[2 * k + 1]);
  };
  for (std::size_t k = 0; k < bins.size(); ++k) {
    bins[k] = 0.5 * (pair(k) + pair((frame_ - k) % frame_));
  }
  return bins;
}

double BandSums::left(std::span<const double> factors) const {
  double sum = *rest;
  for (std::size_t b = 0; b < factors.size(); ++b) {
    const double d = factors[b] - 1.0;
    sum += d * (d * power[b] - 2.0 * slope[b]);
    if (b + 1 < factors.size()) sum += 2.0 * d * (factors[b + 1] - 1.0) * coupling[b];
  }
  return sum;
}

BandSummer::BandSummer(const GainPlan& plan, std::span<const double> bin_weights)
    : bins_of_a_half_(plan.bins_of_a_half) {
  const std::size_t bands = plan.bands();
  const auto weights = [&](auto band_weight) {
    std::vector<double> values;
    for (std::size_t k = 0; k < bin_weights.size(); ++k) {
      values.push_back(bin_weights[k] * band_weight(k));
    }
    return values;
  };
  for (std::size_t b = 0; b < bands; ++b) {
    const auto own = [&](std::size_t k) { return plan.weight(b, k); };
    add_row(b, 0, weights(own));
    add_row(bands + b, 1, weights([&](std::size_t k) { return own(k) * own(k); }));
    if (b + 1 == bands) continue;
    add_row(2 * bands + b, 1,
            weights([&](std::size_t k) { return own(k) * plan.weight(b + 1, k); }));
  }
  add_row(3 * bands, 2, weights([](std::size_t) { return 1.0; }));
}

void BandSummer::add_row(std::size_t place, std::size_t quantity,
                         const std::vector<double>& weights) {
  const auto sounds = [](double weight) { return weight != 0.0; };
  const auto first = std::ranges::find_if(weights, sounds);
  if (first == weights.end()) return;
  const auto last = std::find_if(weights.rbegin(), weights.rend(), sounds).base();
  const auto begin = static_cast<std::size_t>(first - weights.begin()) / kLanes * kLanes;
  const auto end = whole_vectors(static_cast<std::size_t>(last - weights.begin()));
  Row row{.place = place, .quantity = quantity, .first = begin, .weights = {}};
  for (std::size_t k = begin; k < end; ++k) {
    row.weights.push_back(k < weights.size() ? static_cast<float>(weights[k]) : 0.0F);
  }
  rows_.push_back(std::move(row));
}

void BandSummer::add_up(const BinProducts& products, std::span<double> even,
                        std::span<double> odd) const {
  std::ranges::fill(even, 0.0);
  std::ranges::fill(odd, 0.0);
  for (const Row& row : rows_) {
    float lanes[kLanes];
    run_kernel<weigh>(row.weights.data(), products.of(row.quantity) + row.first, row.weights.size(),
                      lanes);
    double sums[2] = {};
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
      sums[lane / bins_of_a_half_ % 2] += static_cast<double>(lanes[lane]);
    }
    even[row.place] = sums[0];
    odd[row.place] = sums[1];
  }
}

}  // namespace verdel::internal
