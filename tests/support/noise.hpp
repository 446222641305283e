#pragma once

#include <algorithm>
#include <random>
#include <vector>

#include "signal/arrays.hpp"

namespace verdel::internal::testing {

inline std::vector<double> noise(std::size_t length, unsigned seed, double low = -1.0,
                                 double high = 1.0) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> value(low, high);
  std::vector<double> values(length);
  for (double& sample : values) sample = value(random);
  return values;
}

inline AudioArray noise_array(std::size_t channels, std::size_t samples, unsigned seed) {
  auto audio = AudioArray::uninitialised(channels, samples);
  std::ranges::copy(noise(audio.size(), seed), audio.flat().begin());
  return audio;
}

}  // namespace verdel::internal::testing
