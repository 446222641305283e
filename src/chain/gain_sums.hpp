#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "chain/gain_frames.hpp"

namespace verdel::internal {

/// One frame's bins, both channels added up: t is what is heard under the engine's gain, e what it
/// leaves of the mix.
class BinProducts {
 public:
  explicit BinProducts(std::size_t frame);

  void set(const PairTransform::Spectrum& e, const PairTransform::Spectrum& t);
  /// [0] Re(e conj t): what a larger factor would explain; [1] |t|^2; [2] |e|^2. Silence behind the
  /// last bin fills a whole number of vectors.
  const float* of(std::size_t quantity) const { return folded_.row(quantity).data(); }

 private:
  Array2D<float> pairs_, folded_;
};

/// Sums of |spectrum|^2, [bins], of frames added one by one.
class PowerSums {
 public:
  explicit PowerSums(std::size_t frame) : frame_(frame), sums_(2 * frame) {}
  void add(const PairTransform::Spectrum& spectrum);
  std::vector<double> by_bin() const;

 private:
  std::size_t frame_;
  std::vector<float> sums_;
};

/// The place of a frame's sums in a row of numbers. With d = factor - 1 by band, the sum of weight
/// times |e - d t|^2 is rest - 2 d . slope + d . (tridiagonal of power, coupling) . d.
struct BandSums {
  const double* slope;     ///< [bands]
  const double* power;     ///< [bands]
  const double* coupling;  ///< [bands], band b with b + 1
  const double* rest;      ///< one value

  BandSums(const double* row, std::size_t bands)
      : slope(row), power(row + bands), coupling(row + 2 * bands), rest(row + 3 * bands) {}
  static std::size_t size(std::size_t bands) { return 3 * bands + 1; }

  double left(std::span<const double> factors) const;
};

/// Adds up a frame's bins by band, each bin with a weight of its own.
class BandSummer {
 public:
  BandSummer(const GainPlan& plan, std::span<const double> bin_weights);
  /// Two rows of BandSums, one for each half of the bins.
  void add_up(const BinProducts& products, std::span<double> even, std::span<double> odd) const;

 private:
  struct Row {
    std::size_t place, quantity, first;
    std::vector<float> weights;
  };
  void add_row(std::size_t place, std::size_t quantity, const std::vector<double>& weights);

  std::size_t bins_of_a_half_;
  std::vector<Row> rows_;
};

}  // namespace verdel::internal
