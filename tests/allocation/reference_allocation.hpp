#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <functional>
#include <vector>

#include "allocation/c14_constants.hpp"
#include "signal/arrays.hpp"
#include "signal/transforms.hpp"
#include "signal/windows.hpp"

/// The allocation of one channel written out as it is defined, one whole array after another and
/// one cell at a time: slow, and plain enough to be checked by reading. Arrays are [bin][frame].
namespace verdel::internal::testing {

using Signal = std::vector<double>;
using Complex = std::complex<double>;

struct Cells {
  Cells() = default;
  explicit Cells(std::size_t count) : frames(count), values(C14_BINS * count) {}
  double& at(std::size_t k, std::size_t t) { return values[k * frames + t]; }
  double at(std::size_t k, std::size_t t) const { return values[k * frames + t]; }
  std::size_t frames = 0;
  std::vector<double> values;
};

struct Spectrum {
  explicit Spectrum(std::size_t count) : frames(count), values(C14_BINS * count) {}
  Complex& at(std::size_t k, std::size_t t) { return values[k * frames + t]; }
  const Complex& at(std::size_t k, std::size_t t) const { return values[k * frames + t]; }
  std::size_t frames;
  std::vector<Complex> values;
};

inline double f32(double value) {
  return static_cast<double>(static_cast<float>(value));
}
inline Complex f32(Complex value) {
  return {f32(value.real()), f32(value.imag())};
}

inline Spectrum plain_transform(const Signal& x, bool rounded) {
  const std::size_t frames = (x.size() + C14_HOP - 1) / C14_HOP + 1;
  Spectrum spectrum(frames);
  const RealTransform<double> fourier(C14_FFT_SIZE);
  const auto window = get_window(C14_FFT_SIZE);
  auto time = Array2D<double>::uninitialised(1, C14_FFT_SIZE);
  auto bins = Array2D<Complex>::uninitialised(1, C14_BINS);
  for (std::size_t f = 0; f < frames; ++f) {
    for (std::size_t m = 0; m < C14_FFT_SIZE; ++m) {
      const auto i = static_cast<std::ptrdiff_t>(f * C14_HOP + m) - 1024;
      const bool inside = i >= 0 && i < static_cast<std::ptrdiff_t>(x.size());
      time.data()[m] = inside ? x[static_cast<std::size_t>(i)] * window[m] : 0.0;
    }
    fourier.forward(time.data(), bins.data());
    for (std::size_t k = 0; k < C14_BINS; ++k) {
      const Complex value = bins.data()[k] / 1024.0;
      spectrum.at(k, f) = rounded ? f32(value) : value;
    }
  }
  return spectrum;
}

inline Signal plain_inverse(const Spectrum& spectrum, std::size_t samples) {
  const std::size_t length = (spectrum.frames + 7) * C14_HOP;
  Signal sums(length, 0.0), norm(length, 0.0);
  const RealTransform<double> fourier(C14_FFT_SIZE);
  const auto window = get_window(C14_FFT_SIZE);
  auto time = Array2D<double>::uninitialised(1, C14_FFT_SIZE);
  auto bins = Array2D<Complex>::uninitialised(1, C14_BINS);
  for (std::size_t f = 0; f < spectrum.frames; ++f) {
    for (std::size_t k = 0; k < C14_BINS; ++k) bins.data()[k] = spectrum.at(k, f);
    fourier.inverse(bins.data(), time.data());
    for (std::size_t m = 0; m < C14_FFT_SIZE; ++m) {
      sums[f * C14_HOP + m] += time.data()[m] / 2048.0 * 1024.0 * window[m];
      norm[f * C14_HOP + m] += window[m] * window[m];
    }
  }
  Signal result(std::min(samples, (spectrum.frames - 1) * C14_HOP));
  for (std::size_t i = 0; i < result.size(); ++i) {
    result[i] = sums[i + 1024] / (norm[i + 1024] > 1e-10 ? norm[i + 1024] : 1.0);
  }
  return result;
}

/// Mean of value(u) over `size` frames around t, edges repeated.
inline double window_mean(std::size_t frames, std::size_t size, std::size_t t,
                          const std::function<double(std::size_t)>& value) {
  double sum = 0.0;
  for (std::size_t j = 0; j < size; ++j) {
    const auto u = static_cast<std::ptrdiff_t>(t + j) - static_cast<std::ptrdiff_t>(size / 2);
    sum += value(static_cast<std::size_t>(
        std::clamp<std::ptrdiff_t>(u, 0, static_cast<std::ptrdiff_t>(frames) - 1)));
  }
  return sum / static_cast<double>(size);
}

inline double smoothstep(double value, double low, double high) {
  const double t = std::clamp((value - low) / (high - low), 0.0, 1.0);
  return t * t * (3.0 - 2.0 * t);
}

struct ReferenceRender {
  std::vector<Cells> support, lagged, persistent;  // scores
  std::vector<Signal> output09, output10;          // endpoints
  std::vector<Cells> projection09, projection10;   // measured
  Cells allocated;                                 // magnitude of the residual measured against
  std::vector<Cells> history, transient;           // pasts
  Cells gate;
  std::vector<Signal> rendered;
};

inline double decay_of(std::size_t delay, int sr) {
  return std::exp(-(static_cast<double>(delay * C14_HOP) / sr) / C14_HISTORY_TAU);
}

inline void score(const Signal& source, const Spectrum& residual, int sr, ReferenceRender& out) {
  const Spectrum stem = plain_transform(source, true);
  const std::size_t frames = stem.frames;
  Cells support(frames), lagged(frames), persistent(frames);
  for (std::size_t k = 0; k < C14_BINS; ++k) {
    const auto power = [&](const Spectrum& s, std::size_t t) { return f32(std::norm(s.at(k, t))); };
    const auto mean_power = [&](const Spectrum& s, std::size_t t) {
      return f32(window_mean(frames, 9, t, [&](std::size_t u) { return power(s, u); }));
    };
    const auto coherence = [&](std::size_t d, std::size_t u) {
      const auto product = [&](std::size_t v) {
        return f32(stem.at(k, v) * std::conj(residual.at(k, v + d)));
      };
      const Complex cross = {
          window_mean(frames - d, 9, u, [&](std::size_t v) { return product(v).real(); }),
          window_mean(frames - d, 9, u, [&](std::size_t v) { return product(v).imag(); })};
      const double powers = mean_power(stem, u) * mean_power(residual, u + d);
      return std::clamp(std::abs(cross) / std::sqrt(std::max(powers, 1e-30)), 0.0, 1.0);
    };
    for (std::size_t t = 0; t < frames; ++t) {
      const double mean = window_mean(frames, 5, t, [&](std::size_t u) { return power(stem, u); });
      support.at(k, t) = f32(std::pow(std::max(mean, 1e-30), 0.75));
    }
    for (std::size_t t = 0; t < frames; ++t) {
      const double c = coherence(0, t);
      lagged.at(k, t) = support.at(k, t) * (0.05 + 0.95 * c * c);
      persistent.at(k, t) = support.at(k, t) * (0.2 + 0.8 * c * c);
    }
    for (const std::size_t d : C14_HISTORY_DELAYS) {
      for (std::size_t t = d; t < frames; ++t) {
        const double c = coherence(d, t - d);
        const double past = decay_of(d, sr) * (0.05 + 0.95 * c * c);
        const double then = support.at(k, t - d);
        lagged.at(k, t) = std::max(lagged.at(k, t), past * then);
        persistent.at(k, t) =
            std::max(persistent.at(k, t), past * std::min(then, support.at(k, t)));
      }
    }
    for (Cells* cells : {&lagged, &persistent}) {
      for (std::size_t t = 0; t < frames; ++t) cells->at(k, t) = f32(cells->at(k, t));
    }
  }
  out.support.push_back(support);
  out.lagged.push_back(lagged);
  out.persistent.push_back(persistent);
}

inline Cells total_of(const std::vector<Cells>& parts) {
  Cells total(parts.front().frames);
  for (const auto& part : parts) {
    for (std::size_t i = 0; i < total.values.size(); ++i) total.values[i] += part.values[i];
  }
  return total;
}

inline Signal endpoint(const Signal& source, const Cells& score, const Cells& total,
                       const Spectrum& residual, std::size_t stems) {
  Spectrum part(residual.frames);
  for (std::size_t i = 0; i < part.values.size(); ++i) {
    const double share = total.values[i] > 1e-25 ? score.values[i] / total.values[i]
                                                 : 1.0 / static_cast<double>(stems);
    part.values[i] = share * residual.values[i];
  }
  Signal signal = plain_inverse(part, source.size());
  for (std::size_t i = 0; i < signal.size(); ++i) signal[i] = f32(signal[i] + source[i]);
  return signal;
}

inline Cells projection(const Signal& output, const Spectrum& source, const Spectrum& residual) {
  const Spectrum added = plain_transform(output, false);
  Cells result(added.frames);
  for (std::size_t i = 0; i < result.values.size(); ++i) {
    const Complex product = (added.values[i] - source.values[i]) * std::conj(residual.values[i]);
    const double power = f32(std::norm(residual.values[i]));
    result.values[i] = f32(std::max(product.real() / std::max(power, 1e-30), 0.0));
  }
  return result;
}

inline std::vector<double> onsets_of(const Cells& support, int sr) {
  const std::size_t frames = support.frames;
  std::vector<double> strength(frames, 0.0), onset(frames, 0.0);
  std::vector<std::size_t> band;
  for (std::size_t k = 0; k < C14_BINS; ++k) {
    const double frequency = static_cast<double>(k) * (sr / 2.0) / 1024.0;
    if (frequency >= 500.0 && frequency <= 12000.0) band.push_back(k);
  }
  for (std::size_t t = 0; t < frames; ++t) {
    for (const std::size_t k : band) strength[t] += support.at(k, t);
  }
  for (std::size_t t = 39; t < frames; ++t) {
    double baseline = 0.0;
    for (std::size_t d = 1; d <= 39; ++d) baseline += strength[t - d] / 39.0;
    const double mean = strength[t] / static_cast<double>(band.size());
    const double floor = std::max(mean * 1e-6, 1e-30);
    double logarithms = 0.0;
    for (const std::size_t k : band) logarithms += std::log(support.at(k, t) + floor);
    const double geometric = std::exp(logarithms / static_cast<double>(band.size()));
    onset[t] = smoothstep(strength[t] / std::max(baseline, 1e-30), 1.8, 5.0) *
               smoothstep(geometric / std::max(mean + floor, 1e-30), 0.04, 0.22);
  }
  return onset;
}

inline void build_pasts(const Cells& support, int sr, ReferenceRender& out) {
  const auto onset = onsets_of(support, sr);
  Cells history(support.frames), transient(support.frames);
  for (std::size_t k = 0; k < C14_BINS; ++k) {
    for (const std::size_t d : C14_HISTORY_DELAYS) {
      for (std::size_t t = d; t < support.frames; ++t) {
        const double past = decay_of(d, sr) * support.at(k, t - d);
        history.at(k, t) = std::max(history.at(k, t), f32(past));
        transient.at(k, t) = std::max(transient.at(k, t), f32(past * onset[t - d]));
      }
    }
  }
  out.history.push_back(history);
  out.transient.push_back(transient);
}

inline Cells gate_of(const ReferenceRender& r, int sr) {
  const Cells total09 = total_of(r.projection09), total10 = total_of(r.projection10);
  const Cells history_total = total_of(r.history);
  const std::size_t frames = total09.frames;
  Cells gate(frames);
  for (std::size_t s = 0; s < r.support.size(); ++s) {
    for (std::size_t k = 0; k < C14_BINS; ++k) {
      const double bass = smoothstep(static_cast<double>(k) * (sr / 2.0) / 1024.0, 350.0, 700.0);
      for (std::size_t t = 0; t < frames; ++t) {
        const double gain =
            std::max(r.projection09[s].at(k, t) / std::max(total09.at(k, t), 1e-30) -
                         r.projection10[s].at(k, t) / std::max(total10.at(k, t), 1e-30),
                     0.0);
        const double present = r.support[s].at(k, t), history = r.history[s].at(k, t);
        double later = 0.0;
        for (std::size_t lag = 1; lag <= 47 && t + lag < frames; ++lag) {
          later = std::max(later, r.support[s].at(k, t + lag));
        }
        const double stem_gate =
            smoothstep(gain, 0.025, 0.18) *
            smoothstep(history / std::max(present, 1e-30), 2.0, 8.0) *
            (1.0 - smoothstep(later / std::max(history, 1e-30), 0.25, 0.9)) *
            smoothstep(history / std::max(history_total.at(k, t), 1e-30), 0.6, 0.88) *
            smoothstep(r.transient[s].at(k, t) / std::max(history, 1e-30), 0.2, 0.7) * bass;
        gate.at(k, t) = std::max(gate.at(k, t), stem_gate);
      }
    }
  }
  for (double& value : gate.values) value *= 0.8;
  return gate;
}

inline ReferenceRender reference_render(const std::vector<Signal>& sources, const Signal& residual,
                                        int sr) {
  ReferenceRender r;
  const Spectrum incoming = plain_transform(residual, true);
  for (const auto& source : sources) score(source, incoming, sr, r);
  const Cells total09 = total_of(r.lagged), total10 = total_of(r.persistent);
  Signal allocated(residual.size(), 0.0);
  for (std::size_t s = 0; s < sources.size(); ++s) {
    r.output09.push_back(endpoint(sources[s], r.lagged[s], total09, incoming, sources.size()));
    r.output10.push_back(endpoint(sources[s], r.persistent[s], total10, incoming, sources.size()));
    for (std::size_t i = 0; i < allocated.size(); ++i) {
      allocated[i] += r.output10[s][i] - sources[s][i];
    }
  }
  const Spectrum measured = plain_transform(allocated, true);
  r.allocated = Cells(measured.frames);
  for (std::size_t i = 0; i < measured.values.size(); ++i) {
    r.allocated.values[i] = std::abs(measured.values[i]);
  }
  for (std::size_t s = 0; s < sources.size(); ++s) {
    // In double: rounding the source's spectrum would only add noise where there is no residual.
    const Spectrum source = plain_transform(sources[s], false);
    r.projection09.push_back(projection(r.output09[s], source, measured));
    r.projection10.push_back(projection(r.output10[s], source, measured));
    build_pasts(r.support[s], sr, r);
  }
  r.gate = gate_of(r, sr);
  for (std::size_t s = 0; s < sources.size(); ++s) {
    const Spectrum a = plain_transform(r.output09[s], false);
    const Spectrum b = plain_transform(r.output10[s], false);
    Spectrum moved(a.frames);
    for (std::size_t i = 0; i < moved.values.size(); ++i) {
      moved.values[i] = r.gate.values[i] * (a.values[i] - b.values[i]);
    }
    Signal stem = plain_inverse(moved, residual.size());
    for (std::size_t i = 0; i < stem.size(); ++i) stem[i] += r.output10[s][i];
    r.rendered.push_back(stem);
  }
  return r;
}

}  // namespace verdel::internal::testing
