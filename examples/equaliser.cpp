#include "equaliser.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace demo {
namespace {

void play_all(const std::vector<EqBand>& bands, std::vector<double>& samples, double sr) {
  for (const EqBand& band : bands) Biquad(band, sr).play(samples);
}

}  // namespace

Biquad::Biquad(const EqBand& band, double sr) {
  const double w = 2.0 * std::numbers::pi * band.hz / sr;
  const double c = std::cos(w), alpha = std::sin(w) / (2.0 * band.q);
  const double a = std::pow(10.0, band.db / 40.0), root = 2.0 * std::sqrt(a) * alpha;
  double a0 = 1.0 + alpha;
  a1 = -2.0 * c;
  a2 = 1.0 - alpha;
  switch (band.kind) {
    case EqBand::Kind::kPeak:
      b0 = 1.0 + alpha * a, b1 = -2.0 * c, b2 = 1.0 - alpha * a;
      a0 = 1.0 + alpha / a, a2 = 1.0 - alpha / a;
      break;
    case EqBand::Kind::kLowShelf:
      b0 = a * ((a + 1.0) - (a - 1.0) * c + root);
      b1 = 2.0 * a * ((a - 1.0) - (a + 1.0) * c);
      b2 = a * ((a + 1.0) - (a - 1.0) * c - root);
      a0 = (a + 1.0) + (a - 1.0) * c + root;
      a1 = -2.0 * ((a - 1.0) + (a + 1.0) * c);
      a2 = (a + 1.0) + (a - 1.0) * c - root;
      break;
    case EqBand::Kind::kHighShelf:
      b0 = a * ((a + 1.0) + (a - 1.0) * c + root);
      b1 = -2.0 * a * ((a - 1.0) + (a + 1.0) * c);
      b2 = a * ((a + 1.0) + (a - 1.0) * c - root);
      a0 = (a + 1.0) - (a - 1.0) * c + root;
      a1 = 2.0 * ((a - 1.0) - (a + 1.0) * c);
      a2 = (a + 1.0) - (a - 1.0) * c - root;
      break;
    case EqBand::Kind::kLowPass:
      b0 = b2 = (1.0 - c) / 2.0, b1 = 1.0 - c;
      break;
    case EqBand::Kind::kHighPass:
      b0 = b2 = (1.0 + c) / 2.0, b1 = -(1.0 + c);
      break;
    case EqBand::Kind::kAllPass:
      b0 = 1.0 - alpha, b1 = -2.0 * c, b2 = 1.0 + alpha;
      break;
  }
  for (double* value : {&b0, &b1, &b2, &a1, &a2}) *value /= a0;
}

void Biquad::play(std::vector<double>& samples) const {
  double first = 0.0, second = 0.0;
  for (double& sample : samples) {
    const double input = sample;
    sample = b0 * input + first;
    first = b1 * input - a1 * sample + second;
    second = b2 * input - a2 * sample;
  }
}

double Biquad::response_db(double hz, double sr) const {
  const std::complex<double> z = std::polar(1.0, -2.0 * std::numbers::pi * hz / sr);
  return 20.0 * std::log10(std::abs((b0 + z * (b1 + z * b2)) / (1.0 + z * (a1 + z * a2))));
}

void Equaliser::process(Stereo& sound, double sr) const {
  for (auto* side : {&sound.left, &sound.right}) {
    if (!linear_phase) {
      play_all(bands, *side, sr);
      continue;
    }
    std::vector<EqBand> halves = bands;
    for (EqBand& band : halves) band.db *= 0.5;
    for (int direction = 0; direction < 2; ++direction) {
      play_all(halves, *side, sr);
      std::ranges::reverse(*side);
    }
  }
}

double Equaliser::response_db(double hz, double sr) const {
  double sum = 0.0;
  for (const EqBand& band : bands) sum += Biquad(band, sr).response_db(hz, sr);
  return sum;
}

void MidSideEqualiser::process(Stereo& sound, double sr) const {
  const double width = std::pow(10.0, side_db / 20.0);
  for (std::size_t i = 0; i < sound.frames(); ++i) {
    const double sum = sound.left[i] + sound.right[i], difference = sound.left[i] - sound.right[i];
    sound.left[i] = 0.5 * sum;
    sound.right[i] = 0.5 * width * difference;
  }
  play_all(mid, sound.left, sr);
  play_all(side, sound.right, sr);
  for (std::size_t i = 0; i < sound.frames(); ++i) {
    const double sum = sound.left[i], difference = sound.right[i];
    sound.left[i] = sum + difference;
    sound.right[i] = sum - difference;
  }
}

}  // namespace demo
