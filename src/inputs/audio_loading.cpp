#include "inputs/audio_loading.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "support/errors.hpp"
#include "support/ordered_prefetch.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

// Samples decoded at a time: fits in the cache beside the rows that they go to.
constexpr std::size_t kBlockSamples = 65536;
// Lengths that differ by no more are evened out in silence.
constexpr std::size_t kLengthTolerance = 2;

std::vector<double> decoding_block(const AudioFile& file) {
  const std::size_t channels = file.header().channels;
  return std::vector<double>(std::max<std::size_t>(kBlockSamples / channels, 1) * channels);
}

AudioArray allocate(std::size_t channels, std::size_t frames, const std::string& path) {
  try {
    return AudioArray::uninitialised(channels, frames);
  } catch (const std::bad_alloc&) {
    throw RuntimeError(fmt::format("{} does not fit into memory: {} channels of {} frames.",
                                   quoted_path(path), channels, frames));
  }
}

// Sorts the first frames of a block into rows, from column `first` on.
void deinterleave(const std::vector<double>& block, std::size_t frames, RowsView<double> rows,
                  std::size_t first) {
  const std::size_t channels = rows.rows();
  for (std::size_t c = 0; c < channels; ++c) {
    double* const row = rows.row(c).data() + first;
    const double* const samples = block.data() + c;
    for (std::size_t i = 0; i < frames; ++i) row[i] = samples[i * channels];
  }
}

// Decodes a whole file, keeps as many frames as the rows hold, and returns how many there were.
std::size_t decode_into(AudioFile& file, RowsView<double> rows, const StopToken& stop) {
  std::vector<double> block = decoding_block(file);
  std::size_t total = 0;
  while (const std::size_t count = file.read(block)) {
    stop.check();
    if (total < rows.columns()) {
      deinterleave(block, std::min(count, rows.columns() - total), rows, total);
    }
    total += count;
  }
  return total;
}

// Decodes a whole file whose length is not known for sure.
AudioArray gather(AudioFile& file, const StopToken& stop) {
  const std::size_t channels = file.header().channels;
  std::vector<double> block = decoding_block(file);
  std::vector<AudioArray> pieces;
  std::size_t total = 0;
  while (const std::size_t count = file.read(block)) {
    stop.check();
    pieces.push_back(allocate(channels, count, file.path()));
    deinterleave(block, count, pieces.back().view(), 0);
    total += count;
  }
  AudioArray whole = allocate(channels, total, file.path());
  std::size_t first = 0;
  for (AudioArray& piece : pieces) {
    for (std::size_t c = 0; c < channels; ++c) {
      std::copy_n(piece.row(c).data(), piece.columns(), whole.row(c).data() + first);
    }
    first += piece.columns();
    piece = AudioArray();  // given back as soon as it has been copied
  }
  return whole;
}

RowsView<double> row_view(AudioArray& audio, std::size_t row) {
  return {audio.row(row).data(), 1, audio.columns(), audio.columns()};
}

// An input cut or extended to a number of frames, and how many it had.
struct FittedAudio {
  AudioArray audio;
  std::size_t frames = 0;
};

FittedAudio decode_fitted(OpenAudioInput& opened, const StemInput& input, std::size_t frames,
                          const StopToken& stop) {
  FittedAudio fitted{allocate(opened.header.channels, frames, input.files.front())};
  if (opened.files.size() == 1) {
    fitted.frames = decode_into(opened.files[0], fitted.audio.view(), stop);
  } else {
    fitted.frames = decode_into(opened.files[0], row_view(fitted.audio, 0), stop);
    require_equal_lengths(input, fitted.frames,
                          decode_into(opened.files[1], row_view(fitted.audio, 1), stop));
  }
  for (std::size_t c = 0; fitted.frames < frames && c < fitted.audio.rows(); ++c) {
    std::ranges::fill(fitted.audio.row(c).subspan(fitted.frames), 0.0);
  }
  return fitted;
}

AudioArray decode_whole(OpenAudioInput& opened, const StemInput& input, const StopToken& stop) {
  const bool is_verified = std::all_of(opened.files.begin(), opened.files.end(),
                                       [](const auto& file) { return file.length_is_verified(); });
  if (is_verified) return decode_fitted(opened, input, *opened.header.frames, stop).audio;
  if (opened.files.size() == 1) return gather(opened.files.front(), stop);
  const AudioArray left = gather(opened.files[0], stop), right = gather(opened.files[1], stop);
  require_equal_lengths(input, left.columns(), right.columns());
  AudioArray both = allocate(2, left.columns(), input.files.front());
  std::ranges::copy(left.flat(), both.row(0).begin());
  std::ranges::copy(right.flat(), both.row(1).begin());
  return both;
}

// The tests of one stem against the mix, in the order in which a stem that fails several reports
// them. A length that the header does not tell is not judged.
void require_fit(const StemInput& stem, const AudioHeader& header, const StemLoading& loading,
                 const LineSink& message) {
  if (header.sr != loading.mix_sr) {
    throw ValueError(
        fmt::format("{}: {} Hz but mix is {} Hz", stem.name, header.sr, loading.mix_sr));
  }
  if (header.channels != loading.mix_channels && !loading.any_channels) {
    throw ValueError(
        fmt::format("{}: {}-channel but the mix is {}-channel. Bounce everything as stereo, or "
                    "provide matching mono .L and .R files.",
                    stem.name, header.channels, loading.mix_channels));
  }
  if (!header.frames) return;
  const auto [shorter, longer] = std::minmax(*header.frames, loading.mix_frames);
  if (longer - shorter <= kLengthTolerance) return;
  if (loading.strict_inputs) {
    throw ValueError(
        fmt::format("{} has a different length from the mix. Bounce every stem over the exact "
                    "same range as the mix.",
                    stem.name));
  }
  const auto seconds = [&](std::size_t frames) {
    return static_cast<double>(frames) / static_cast<double>(header.sr);
  };
  message(fmt::format("  ! {} length {:.2f}s vs mix {:.2f}s - LENGTH MISMATCH", stem.name,
                      seconds(*header.frames), seconds(loading.mix_frames)));
}

// A decoded stem, and what is to be said of it.
struct DecodedStem {
  AudioArray audio;
  std::vector<std::string> warnings;
};

// Decodes one stem. What its header told when all were looked at has been judged already; what is
// new since then, or shows only now, is judged here.
DecodedStem decode_stem(const StemInput& stem, const AudioHeader& judged,
                        const StemLoading& loading, const StopToken& stop) {
  DecodedStem decoded;
  const LineSink warn = [&](std::string_view line) { decoded.warnings.emplace_back(line); };
  OpenAudioInput opened = open_audio_input(stem);
  if (opened.header != judged) require_fit(stem, opened.header, loading, warn);
  FittedAudio fitted = decode_fitted(opened, stem, loading.mix_frames, stop);
  if (!opened.header.frames) {
    require_fit(stem, {opened.header.sr, opened.header.channels, fitted.frames}, loading, warn);
  }
  decoded.audio = std::move(fitted.audio);
  return decoded;
}

}  // namespace

LoadedAudio load(const std::string& path, const StopToken& stop) {
  return load_audio_input({"", {path}}, stop);
}

LoadedAudio load_audio_input(const StemInput& input, const StopToken& stop) {
  OpenAudioInput opened = open_audio_input(input);
  return {decode_whole(opened, input, stop), opened.header.sr};
}

StemMap load_stem_inputs(const StemLoading& loading, const LineSink& message,
                         const StopToken& stop) {
  const std::vector<StemInput> plan = plan_stem_inputs(loading.folder);
  if (plan.empty()) throw ValueError("no tap files found");
  std::vector<AudioHeader> headers;
  headers.reserve(plan.size());
  for (const StemInput& stem : plan) {
    stop.check();
    headers.push_back(check_audio_input(stem, stop));
    require_fit(stem, headers.back(), loading, message);
  }
  // Several decode at once; results, warnings and the first failure come in stem order.
  auto decoded = _ordered_prefetch(
      [&](std::size_t i) { return decode_stem(plan[i], headers[i], loading, stop); }, plan.size(),
      std::clamp<std::size_t>(loading.workers, 1, plan.size()), "verdel-decode");
  StemMap stems;
  stems.reserve(plan.size());
  for (const StemInput& stem : plan) {
    DecodedStem next = *decoded.next();
    for (const std::string& warning : next.warnings) message(warning);
    stems.push_back({stem.name, std::move(next.audio)});
  }
  return stems;
}

}  // namespace verdel::internal
