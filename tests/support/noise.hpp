#pragma once

#include <random>
#include <vector>

#include "signal/arrays.hpp"

namespace verdel::internal::testing {

inline void fill_with_noise(std::span<double> into, unsigned seed, double low = -1.0,
                            double high = 1.0) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> value(low, high);
  for (double& sample : into) sample = value(random);
}

inline std::vector<double> noise(std::size_t length, unsigned seed, double low = -1.0,
                                 double high = 1.0) {
  std::vector<double> values(length);
  fill_with_noise(values, seed, low, high);
  return values;
}

inline AudioArray noise_array(std::size_t channels, std::size_t samples, unsigned seed) {
  auto audio = AudioArray::uninitialised(channels, samples);
  fill_with_noise(audio.flat(), seed);
  return audio;
}

}  // namespace verdel::internal::testing
