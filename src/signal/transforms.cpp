#include "signal/transforms.hpp"

#include <fftw3.h>

#include <cassert>
#include <mutex>
#include <type_traits>

#include "signal/arrays.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

// FFTW plans under one global state; executing needs no lock. A host may plan transforms of its own
// meanwhile, so FFTW's lock is taken too, where its threads library brings one.
std::unique_lock<std::mutex> lock_planner() {
  static std::mutex lock;
#ifdef VERDEL_FFTW_THREADS
  static std::once_flag once;
  std::call_once(once, [] {
    fftw_make_planner_thread_safe();
    fftwf_make_planner_thread_safe();
  });
#endif
  return std::unique_lock(lock);
}

template <class Real>
struct Fftw;

template <>
struct Fftw<double> {
  using Plan = fftw_plan;
  using Complex = fftw_complex;
  static constexpr auto plan_r2c = fftw_plan_dft_r2c_1d;
  static constexpr auto plan_c2r = fftw_plan_dft_c2r_1d;
  static constexpr auto plan_c2c = fftw_plan_dft_1d;
  static constexpr auto run_r2c = fftw_execute_dft_r2c;
  static constexpr auto run_c2r = fftw_execute_dft_c2r;
  static constexpr auto run_c2c = fftw_execute_dft;
  static constexpr auto destroy = fftw_destroy_plan;
};

template <>
struct Fftw<float> {
  using Plan = fftwf_plan;
  using Complex = fftwf_complex;
  static constexpr auto plan_r2c = fftwf_plan_dft_r2c_1d;
  static constexpr auto plan_c2r = fftwf_plan_dft_c2r_1d;
  static constexpr auto plan_c2c = fftwf_plan_dft_1d;
  static constexpr auto run_r2c = fftwf_execute_dft_r2c;
  static constexpr auto run_c2r = fftwf_execute_dft_c2r;
  static constexpr auto run_c2c = fftwf_execute_dft;
  static constexpr auto destroy = fftwf_destroy_plan;
};

template <class Real>
typename Fftw<Real>::Complex* raw(std::complex<Real>* values) {
  return reinterpret_cast<typename Fftw<Real>::Complex*>(values);
}

template <class Real>
typename Fftw<Real>::Complex* raw(const std::complex<Real>* values) {
  // FFTW's signatures are not const, though out-of-place plans leave their input alone.
  return raw(const_cast<std::complex<Real>*>(values));
}

// The two plans of one length. Estimated plans depend on the length and the processor only, so
// that every process computes the same bits; timed ones would differ from run to run.
template <class Real>
struct PlanPair {
  using Library = Fftw<Real>;
  std::size_t length = 0;
  typename Library::Plan forward = nullptr, inverse = nullptr;

  ~PlanPair() {
    const auto lock = lock_planner();
    if (forward != nullptr) Library::destroy(forward);
    if (inverse != nullptr) Library::destroy(inverse);
  }
};

void require_plans(bool made) {
  if (!made) throw RuntimeError("cannot plan a Fourier transform of this length");
}

}  // namespace

template <class Real>
struct RealTransform<Real>::Plans : PlanPair<Real> {};

template <class Real>
RealTransform<Real>::RealTransform(std::size_t length) : plans_(std::make_unique<Plans>()) {
  assert(length >= 2 && length % 2 == 0);
  using Library = Fftw<Real>;
  plans_->length = length;
  auto time = Array2D<Real>::uninitialised(1, length);
  auto spectrum = Array2D<std::complex<Real>>::uninitialised(1, length / 2 + 1);
  const int n = static_cast<int>(length);
  const auto lock = lock_planner();
  plans_->forward =
      Library::plan_r2c(n, time.data(), raw(spectrum.data()), FFTW_ESTIMATE | FFTW_PRESERVE_INPUT);
  plans_->inverse =
      Library::plan_c2r(n, raw(spectrum.data()), time.data(), FFTW_ESTIMATE | FFTW_DESTROY_INPUT);
  require_plans(plans_->forward != nullptr && plans_->inverse != nullptr);
}

template <class Real>
RealTransform<Real>::~RealTransform() = default;
template <class Real>
RealTransform<Real>::RealTransform(RealTransform&&) noexcept = default;
template <class Real>
RealTransform<Real>& RealTransform<Real>::operator=(RealTransform&&) noexcept = default;

template <class Real>
std::size_t RealTransform<Real>::length() const {
  return plans_->length;
}

template <class Real>
void RealTransform<Real>::forward(const Real* time, std::complex<Real>* spectrum) const {
  Fftw<Real>::run_r2c(plans_->forward, const_cast<Real*>(time), raw(spectrum));
}

template <class Real>
void RealTransform<Real>::inverse(std::complex<Real>* spectrum, Real* time) const {
  Fftw<Real>::run_c2r(plans_->inverse, raw(spectrum), time);
}

template <class Real>
struct ComplexTransform<Real>::Plans : PlanPair<Real> {};

template <class Real>
ComplexTransform<Real>::ComplexTransform(std::size_t length) : plans_(std::make_unique<Plans>()) {
  assert(length >= 1);
  using Library = Fftw<Real>;
  plans_->length = length;
  auto time = Array2D<std::complex<Real>>::uninitialised(1, length);
  auto spectrum = Array2D<std::complex<Real>>::uninitialised(1, length);
  const int n = static_cast<int>(length);
  const auto lock = lock_planner();
  plans_->forward = Library::plan_c2c(n, raw(time.data()), raw(spectrum.data()), FFTW_FORWARD,
                                      FFTW_ESTIMATE | FFTW_PRESERVE_INPUT);
  plans_->inverse = Library::plan_c2c(n, raw(spectrum.data()), raw(time.data()), FFTW_BACKWARD,
                                      FFTW_ESTIMATE | FFTW_PRESERVE_INPUT);
  require_plans(plans_->forward != nullptr && plans_->inverse != nullptr);
}

template <class Real>
ComplexTransform<Real>::~ComplexTransform() = default;
template <class Real>
ComplexTransform<Real>::ComplexTransform(ComplexTransform&&) noexcept = default;
template <class Real>
ComplexTransform<Real>& ComplexTransform<Real>::operator=(ComplexTransform&&) noexcept = default;

template <class Real>
std::size_t ComplexTransform<Real>::length() const {
  return plans_->length;
}

template <class Real>
void ComplexTransform<Real>::forward(const std::complex<Real>* time,
                                     std::complex<Real>* spectrum) const {
  Fftw<Real>::run_c2c(plans_->forward, raw(time), raw(spectrum));
}

template <class Real>
void ComplexTransform<Real>::inverse(const std::complex<Real>* spectrum,
                                     std::complex<Real>* time) const {
  Fftw<Real>::run_c2c(plans_->inverse, raw(spectrum), raw(time));
}

template class RealTransform<float>;
template class RealTransform<double>;
template class ComplexTransform<float>;
template class ComplexTransform<double>;

}  // namespace verdel::internal
