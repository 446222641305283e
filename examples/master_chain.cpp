#include "master_chain.hpp"

#include <algorithm>
#include <array>
#include <cstddef>

namespace demo {
namespace {

using Sounds = std::vector<Stereo*>;

template <class Change>
void for_each_channel(Stereo& sound, const Stereo& other, Change change) {
  for (std::size_t i = 0; i < sound.frames(); ++i) change(sound.left[i], other.left[i]);
  for (std::size_t i = 0; i < sound.frames(); ++i) change(sound.right[i], other.right[i]);
}

void add(Stereo& sound, const Stereo& other) {
  for_each_channel(sound, other, [](double& into, double value) { into += value; });
}

Stereo sum_of(const Sounds& sounds) {
  Stereo sum = *sounds.front();
  for (std::size_t i = 1; i < sounds.size(); ++i) add(sum, *sounds[i]);
  return sum;
}

template <class Gain>
void multiply(const Gain& device, const Sounds& sounds, double sr) {
  const Stereo gains = device.gains(sum_of(sounds), sr);
  for (Stereo* sound : sounds) {
    for_each_channel(*sound, gains, [](double& value, double gain) { value *= gain; });
  }
}

/// One band of the crossovers; those above it are passed through their all-pass.
void split(Stereo& sound, const std::vector<double>& crossovers_hz, std::size_t band, double sr) {
  using Kind = EqBand::Kind;
  Equaliser filters;
  for (std::size_t c = 0; c < crossovers_hz.size(); ++c) {
    const double hz = crossovers_hz[c];
    if (c > band) {
      filters.bands.push_back({.kind = Kind::kAllPass, .hz = hz});
    } else {
      const Kind kind = c == band ? Kind::kLowPass : Kind::kHighPass;
      filters.bands.insert(filters.bands.end(), 2, {.kind = kind, .hz = hz});
    }
  }
  filters.process(sound, sr);
}

void compress_bands(const MultibandCompressor& device, const Sounds& sounds, double sr) {
  std::vector<Stereo> whole(sounds.size(), Stereo(sounds.front()->frames()));
  for (std::size_t band = 0; band < device.bands.size(); ++band) {
    std::vector<Stereo> parts;
    Sounds pointers;
    for (const Stereo* sound : sounds) {
      split(parts.emplace_back(*sound), device.crossovers_hz, band, sr);
    }
    for (Stereo& part : parts) pointers.push_back(&part);
    multiply(device.bands[band], pointers, sr);
    for (std::size_t i = 0; i < whole.size(); ++i) add(whole[i], parts[i]);
  }
  for (std::size_t i = 0; i < whole.size(); ++i) *sounds[i] = std::move(whole[i]);
}

template <class What>
void play(const What& device, const Sounds& sounds, double sr) {
  if constexpr (requires { device.gains(*sounds.front(), sr); }) {
    multiply(device, sounds, sr);
  } else {
    for (Stereo* sound : sounds) device.process(*sound, sr);
  }
}
void play(const MultibandCompressor& device, const Sounds& sounds, double sr) {
  compress_bands(device, sounds, sr);
}

/// From the dry sound to what the device made of it.
void fade_in(const Stereo& dry, double begin, double sr, Stereo& sound) {
  const double first = begin * static_cast<double>(sound.frames());
  for (std::size_t i = 0; i < sound.frames(); ++i) {
    const double wet = std::clamp((static_cast<double>(i) - first) / (kFadeSeconds * sr), 0.0, 1.0);
    sound.left[i] = dry.left[i] + wet * (sound.left[i] - dry.left[i]);
    sound.right[i] = dry.right[i] + wet * (sound.right[i] - dry.right[i]);
  }
}

}  // namespace

void play_through(const Chain& chain, std::vector<Stem>& stems, double sr) {
  for (const Device& device : chain) {
    Sounds sounds;
    for (Stem& stem : stems) {
      const bool named = std::ranges::find(device.only, stem.name) != device.only.end();
      if (device.only.empty() || named) sounds.push_back(&stem.sound);
    }
    if (sounds.empty()) continue;
    std::vector<Stereo> dry;
    if (device.begin > 0.0) {
      for (const Stereo* sound : sounds) dry.push_back(*sound);
    }
    std::visit([&](const auto& what) { play(what, sounds, sr); }, device.what);
    for (std::size_t i = 0; i < dry.size(); ++i) fade_in(dry[i], device.begin, sr, *sounds[i]);
  }
}

Stereo sum_of(const std::vector<Stem>& stems) {
  Stereo sum = stems.front().sound;
  for (std::size_t i = 1; i < stems.size(); ++i) add(sum, stems[i].sound);
  return sum;
}

Chain demo_master() {
  return {{Compressor{}}, {Reverb{}}, {Saturation{}}, {Limiter{}}};
}

Equaliser demo_equaliser() {
  using Kind = EqBand::Kind;
  return {{{.kind = Kind::kHighPass, .hz = 30.0},
           {.kind = Kind::kPeak, .hz = 95.0, .db = 2.5, .q = 1.1},
           {.kind = Kind::kPeak, .hz = 380.0, .db = -3.5, .q = 0.9},
           {.kind = Kind::kPeak, .hz = 3000.0, .db = 2.0, .q = 0.8},
           {.kind = Kind::kHighShelf, .hz = 8500.0, .db = 4.0}}};
}

}  // namespace demo
