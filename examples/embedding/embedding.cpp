#include <cmath>
#include <cstdio>
#include <vector>
#include <verdel/verdel.hpp>

// Two seconds of two taps through a soft limiter, shared out again without a file.
int main() {
  constexpr int kRate = 48000;
  std::vector<double> bass(2 * kRate), pluck(2 * kRate), mix(2 * kRate);
  for (int i = 0; i < 2 * kRate; ++i) {
    const auto at = static_cast<std::size_t>(i);
    const double seconds = static_cast<double>(i) / kRate;
    bass[at] = 0.6 * std::sin(2.0 * 3.14159265358979 * 55.0 * seconds);
    pluck[at] = 0.5 * std::exp(-6.0 * std::fmod(seconds, 0.5)) *
                std::sin(2.0 * 3.14159265358979 * 440.0 * seconds);
    mix[at] = std::tanh(bass[at] + pluck[at]);
  }

  verdel::RenderRequest request;
  request.sample_rate = kRate;
  request.mix = {mix};
  request.taps = {{"Bass", {bass}}, {"Pluck", {pluck}}};
  try {
    const verdel::RenderResult result = verdel::render(request);
    std::printf("VERDEL %s: %zu stems, null residual %.1f dBFS\n", verdel::version(),
                result.stems.size(), result.null_peak);
  } catch (const verdel::RenderError& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
