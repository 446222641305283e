#pragma once

#include <complex>
#include <cstddef>
#include <memory>

/// Fourier transforms of one length each. The library behind them (its planner's lock, its rules
/// of alignment) is known to transforms.cpp alone, so another one can stand in.
///
/// Nothing is normalised: inverse(forward(x)) is length * x. Pointers must be aligned as Array2D
/// aligns its data (64 bytes), and time and spectrum must not overlap. A planned transform is
/// executed from any number of threads at once; the same input gives the same bits in every run on
/// one machine, because plans are estimated, never timed.
namespace verdel::internal {

/// Real signals of `length` samples (even, at least 2) against length / 2 + 1 bins.
template <class Real>
class RealTransform {
 public:
  explicit RealTransform(std::size_t length);
  ~RealTransform();
  RealTransform(RealTransform&&) noexcept;
  RealTransform& operator=(RealTransform&&) noexcept;

  std::size_t length() const;
  std::size_t bins() const { return length() / 2 + 1; }
  /// spectrum[k] = sum of time[n] exp(-2 pi i k n / length); time is left as it was.
  void forward(const Real* time, std::complex<Real>* spectrum) const;
  /// The real signal of a half spectrum, times length. The imaginary parts of the first and the
  /// last bin count as 0. Destroys the spectrum.
  void inverse(std::complex<Real>* spectrum, Real* time) const;

 private:
  struct Plans;
  std::unique_ptr<Plans> plans_;
};

/// Complex signals of `length` samples against as many bins.
template <class Real>
class ComplexTransform {
 public:
  explicit ComplexTransform(std::size_t length);
  ~ComplexTransform();
  ComplexTransform(ComplexTransform&&) noexcept;
  ComplexTransform& operator=(ComplexTransform&&) noexcept;

  std::size_t length() const;
  void forward(const std::complex<Real>* time, std::complex<Real>* spectrum) const;
  void inverse(const std::complex<Real>* spectrum, std::complex<Real>* time) const;

 private:
  struct Plans;
  std::unique_ptr<Plans> plans_;
};

extern template class RealTransform<float>;
extern template class RealTransform<double>;
extern template class ComplexTransform<float>;
extern template class ComplexTransform<double>;

}  // namespace verdel::internal
