#include "delivery/verification.hpp"

#include <cstddef>
#include <span>

#include "inputs/audio_file.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kBlockFrames = 8192;

// Adds a stem's file to `sum`, block by block.
void add_file(const WrittenStem& stem, int sr, AudioArray& sum, const StopToken& stop) {
  AudioFile file(stem.path);
  const std::size_t channels = sum.rows();
  if (file.header() != AudioHeader{sr, channels, sum.columns()}) {
    throw RuntimeError("written stem verification failed for " + printable(stem.name));
  }
  std::vector<double> block(kBlockFrames * channels);
  std::size_t first = 0;
  while (const std::size_t count = file.read(block)) {
    stop.check();
    for (std::size_t channel = 0; channel < channels; ++channel) {
      double* row = sum.row(channel).data() + first;
      for (std::size_t i = 0; i < count; ++i) row[i] += block[i * channels + channel];
    }
    first += count;
  }
}

}  // namespace

AudioArray written_residual(const std::vector<WrittenStem>& stems, AudioView mix, int sr,
                            const StopToken& stop) {
  auto residual = AudioArray::zeros(mix.rows(), mix.columns());
  for (const auto& stem : stems) add_file(stem, sr, residual, stop);
  for (std::size_t channel = 0; channel < mix.rows(); ++channel) {
    stop.check();
    const auto target = mix.row(channel);
    const auto row = residual.row(channel);
    for (std::size_t i = 0; i < row.size(); ++i) row[i] = target[i] - row[i];
  }
  return residual;
}

}  // namespace verdel::internal
