#include "delivery/verification.hpp"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <span>
#include <system_error>

#include "inputs/audio_blocks.hpp"
#include "inputs/audio_header.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kBlockFrames = 8192;
constexpr double kLoudestNullResidual = -100.0;  // dBFS

/// Takes some frames of a file, [frames][channels], whose first channel is the stem's `channel` and
/// whose first frame is the stem's `first`; returns whether it wants more.
using TakeFrames =
    std::function<bool(std::size_t channel, std::size_t first, AudioView interleaved)>;

/// Hands on a stem that must be of the shape of `like`, block by block, for as long as it is
/// wanted.
void read_stem(const StemInput& stem, int sr, AudioView like, const StopToken& stop,
               const TakeFrames& take) {
  const auto require = [&](bool fits) {
    if (!fits) throw RuntimeError("written stem verification failed for " + printable(stem.name));
  };
  OpenAudioInput opened = open_audio_input(stem);
  require(opened.header.sr == sr && opened.header.channels == like.rows() &&
          opened.header.frames.value_or(like.columns()) == like.columns());
  std::size_t channel = 0;
  for (AudioFile& file : opened.files) {
    const std::size_t width = file.header().channels;
    std::vector<double> block(kBlockFrames * width);
    std::size_t first = 0;
    while (const std::size_t count = file.read(block)) {
      stop.check();
      require(count <= like.columns() - first);
      if (!take(channel, first, {block.data(), count, width, width})) return;
      first += count;
    }
    require(first == like.columns());
    channel += width;
  }
}

void add_stem(const StemInput& stem, int sr, AudioArray& sum, const StopToken& stop) {
  read_stem(stem, sr, sum.view(), stop, [&](std::size_t channel, std::size_t first, AudioView in) {
    for (std::size_t c = 0; c < in.columns(); ++c) {
      double* const row = sum.row(channel + c).data() + first;
      for (std::size_t i = 0; i < in.rows(); ++i) row[i] += in.data()[i * in.columns() + c];
    }
    return true;
  });
}

bool holds_without(const StemInput& stem, AudioView residual, int sr, double threshold,
                   const StopToken& stop) {
  const double limit = std::pow(10.0, threshold / 20.0);
  bool holds = true;
  read_stem(stem, sr, residual, stop, [&](std::size_t channel, std::size_t first, AudioView in) {
    for (std::size_t c = 0; c < in.columns(); ++c) {
      const double* const row = residual.row(channel + c).data() + first;
      for (std::size_t i = 0; i < in.rows(); ++i) {
        holds = holds && std::abs(row[i] + in.data()[i * in.columns() + c]) < limit;
      }
    }
    return holds;
  });
  return holds;
}

std::size_t worst_sample(std::span<const double> samples) {
  std::size_t worst = 0;
  for (std::size_t i = 0; i < samples.size(); ++i) {
    if (std::isnan(samples[i])) return i;
    if (std::abs(samples[i]) > std::abs(samples[worst])) worst = i;
  }
  return worst;
}

std::vector<StemInput> oldest_first(std::vector<StemInput> stems) {
  const auto age = [](const StemInput& stem) {
    std::error_code unknown;
    return std::filesystem::last_write_time(stem.files.front(), unknown);
  };
  std::ranges::stable_sort(stems, {}, age);
  return stems;
}

}  // namespace

bool is_null_residual(const StemInput& stem, const StopToken& stop) {
  if (stem.name != kNullResidualName) return false;
  AudioBlocks blocks(stem);
  auto block = AudioArray::uninitialised(blocks.header().channels, kBlockFrames);
  while (const std::size_t count = blocks.read(block.view())) {
    stop.check();
    if (!(levels(block.view().column_range(0, count)).peak <= kLoudestNullResidual)) return false;
  }
  return true;
}

AudioArray written_residual(const std::vector<StemInput>& stems, AudioView mix, int sr,
                            const StopToken& stop, const SongStorage& storage) {
  auto residual = storage.zeros<double>(mix.rows(), mix.columns());
  for (const auto& stem : stems) add_stem(stem, sr, residual, stop);
  for (std::size_t channel = 0; channel < mix.rows(); ++channel) {
    stop.check();
    const auto target = mix.row(channel);
    const auto row = residual.row(channel);
    for (std::size_t i = 0; i < row.size(); ++i) row[i] = target[i] - row[i];
  }
  return residual;
}

Proof prove(AudioView residual, double threshold) {
  Proof proof;
  for (std::size_t channel = 0; channel < residual.rows(); ++channel) {
    const auto row = residual.row(channel);
    const AudioView alone(row.data(), 1, row.size(), row.size());
    proof.channels.push_back({levels(alone), worst_sample(row)});
    const double peak = proof.channels.back().difference.peak;
    // A comparison passes over what is not a number, and that is the worst there is.
    if (std::isnan(proof.peak) || peak <= proof.peak) continue;
    proof.peak = peak;
    proof.worst_channel = channel;
  }
  proof.passed = proof.peak < threshold;
  return proof;
}

std::vector<StemInput> surplus_stems(const std::vector<StemInput>& stems, AudioArray residual,
                                     int sr, double threshold, const StopToken& stop) {
  if (stems.size() < 2) return {};
  const std::vector<StemInput> by_age = oldest_first(stems);
  for (const StemInput& stem : by_age) {
    if (holds_without(stem, residual.view(), sr, threshold, stop)) return {stem};
  }
  for (std::size_t count = 1; count < by_age.size(); ++count) {
    add_stem(by_age[count - 1], sr, residual, stop);
    if (prove(residual.view(), threshold).passed) {
      return {by_age.begin(), by_age.begin() + static_cast<std::ptrdiff_t>(count)};
    }
  }
  return {};
}

}  // namespace verdel::internal
