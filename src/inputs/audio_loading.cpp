#include "inputs/audio_loading.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <new>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "support/errors.hpp"
#include "support/number_text.hpp"
#include "support/ordered_prefetch.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

// Samples decoded at a time: fits in the cache beside the rows that they go to.
constexpr std::size_t kBlockSamples = 65536;
// Lengths that differ by no more are evened out in silence.
constexpr std::size_t kLengthTolerance = 2;

template <class Sample>
std::vector<Sample> decoding_block(const AudioFile& file) {
  const std::size_t channels = file.header().channels;
  return std::vector<Sample>(std::max<std::size_t>(kBlockSamples / channels, 1) * channels);
}

template <class Sample>
Array2D<Sample> allocate(std::size_t channels, std::size_t frames, const std::string& path,
                         const SongStorage& storage = {}) {
  try {
    return storage.uninitialised<Sample>(channels, frames);
  } catch (const std::bad_alloc&) {
    throw RuntimeError(fmt::format("{} does not fit into memory: {} of {}.", quoted_path(path),
                                   counted(channels, "channel"), counted(frames, "frame")));
  }
}

// Sorts the first frames of a block into rows, from column `first` on.
template <class Sample>
void deinterleave(std::span<const Sample> block, std::size_t frames, RowsView<Sample> rows,
                  std::size_t first) {
  const std::size_t channels = rows.rows();
  for (std::size_t c = 0; c < channels; ++c) {
    Sample* const row = rows.row(c).data() + first;
    const Sample* const samples = block.data() + c;
    for (std::size_t i = 0; i < frames; ++i) row[i] = samples[i * channels];
  }
}

// Decodes a whole file, keeps as many frames as the rows hold, and returns how many there were.
template <class Sample>
std::size_t decode_into(AudioFile& file, RowsView<Sample> rows, const StopToken& stop) {
  std::vector<Sample> block = decoding_block<Sample>(file);
  std::size_t total = 0;
  while (const std::size_t count = file.read(std::span(block))) {
    stop.check();
    if (total < rows.columns()) {
      deinterleave(std::span<const Sample>(block), std::min(count, rows.columns() - total), rows,
                   total);
    }
    total += count;
  }
  return total;
}

// Decodes a whole file whose length is not known for sure: into pieces each as long as all before
// it, so that they are few however long the file is.
AudioArray gather(AudioFile& file, const SongStorage& storage, const StopToken& stop) {
  const std::size_t channels = file.header().channels;
  std::vector<double> block = decoding_block<double>(file);
  std::vector<AudioArray> pieces;
  std::size_t total = 0, room = 0;  // room: frames that the last piece has left
  while (const std::size_t count = file.read(block)) {
    stop.check();
    for (std::size_t done = 0; done < count;) {
      if (room == 0) {
        room = std::max(total, count);
        pieces.push_back(allocate<double>(channels, room, file.path(), storage));
      }
      AudioArray& piece = pieces.back();
      const std::size_t taken = std::min(count - done, room);
      deinterleave(std::span<const double>(block).subspan(done * channels), taken, piece.view(),
                   piece.columns() - room);
      room -= taken;
      done += taken;
      total += taken;
    }
  }
  AudioArray whole = allocate<double>(channels, total, file.path(), storage);
  std::size_t first = 0;
  for (AudioArray& piece : pieces) {
    const std::size_t frames = std::min(piece.columns(), total - first);
    for (std::size_t c = 0; c < channels; ++c) {
      std::copy_n(piece.row(c).data(), frames, whole.row(c).data() + first);
    }
    first += frames;
    piece = AudioArray();  // given back as soon as it has been copied
  }
  return whole;
}

template <class Sample>
RowsView<Sample> row_view(Array2D<Sample>& audio, std::size_t row) {
  return {audio.row(row).data(), 1, audio.columns(), audio.columns()};
}

// An input cut or extended to a number of frames, and how many it had.
template <class Sample>
struct FittedAudio {
  Array2D<Sample> audio;
  std::size_t frames = 0;
};

template <class Sample>
FittedAudio<Sample> decode_fitted(OpenAudioInput& opened, const StemInput& input,
                                  std::size_t frames, const SongStorage& storage,
                                  const StopToken& stop) {
  FittedAudio<Sample> fitted{
      allocate<Sample>(opened.header.channels, frames, input.files.front(), storage)};
  if (opened.files.size() == 1) {
    fitted.frames = decode_into(opened.files[0], fitted.audio.view(), stop);
  } else {
    fitted.frames = decode_into(opened.files[0], row_view(fitted.audio, 0), stop);
    require_equal_lengths(input, fitted.frames,
                          decode_into(opened.files[1], row_view(fitted.audio, 1), stop));
  }
  for (std::size_t c = 0; fitted.frames < frames && c < fitted.audio.rows(); ++c) {
    std::ranges::fill(fitted.audio.row(c).subspan(fitted.frames), Sample{0});
  }
  return fitted;
}

AudioArray decode_whole(AudioFile& file, const SongStorage& storage, const StopToken& stop) {
  if (!file.length_is_verified()) return gather(file, storage, stop);
  AudioArray audio =
      allocate<double>(file.header().channels, *file.header().frames, file.path(), storage);
  decode_into(file, audio.view(), stop);
  return audio;
}

AudioArray decode_pair(OpenAudioInput& pair, const StemInput& input, const SongStorage& storage,
                       const StopToken& stop) {
  const auto is_verified = [](const AudioFile& file) { return file.length_is_verified(); };
  if (std::ranges::all_of(pair.files, is_verified)) {
    return decode_fitted<double>(pair, input, *pair.header.frames, storage, stop).audio;
  }
  const AudioArray left = decode_whole(pair.files[0], storage, stop);
  const AudioArray right = decode_whole(pair.files[1], storage, stop);
  require_equal_lengths(input, left.columns(), right.columns());
  AudioArray both = allocate<double>(2, left.columns(), input.files.front(), storage);
  std::ranges::copy(left.flat(), both.row(0).begin());
  std::ranges::copy(right.flat(), both.row(1).begin());
  return both;
}

// The tests of one stem against the mix, in the order in which a stem that fails several reports
// them. A length that the header does not tell is not judged.
void require_fit(const StemInput& stem, const AudioHeader& header, const StemLoading& loading,
                 const LineSink& message) {
  const std::string name = printable(stem.name);
  if (header.sr != loading.mix_sr) {
    throw ValueError(fmt::format("{}: {} Hz but mix is {} Hz", name, header.sr, loading.mix_sr));
  }
  if (header.channels != loading.mix_channels && !loading.any_channels) {
    throw ValueError(
        fmt::format("{}: {}-channel but the mix is {}-channel. Bounce everything as stereo, or "
                    "provide matching mono .L and .R files.",
                    name, header.channels, loading.mix_channels));
  }
  if (!header.frames) return;
  const auto [shorter, longer] = std::minmax(*header.frames, loading.mix_frames);
  if (longer - shorter <= kLengthTolerance) return;
  if (loading.strict_inputs) {
    throw ValueError(
        fmt::format("{} has a different length from the mix. Bounce every stem over the exact "
                    "same range as the mix.",
                    name));
  }
  const auto seconds = [&](std::size_t frames) {
    return static_cast<double>(frames) / static_cast<double>(header.sr);
  };
  message(fmt::format("  ! {} length {:.2f}s vs mix {:.2f}s - LENGTH MISMATCH", name,
                      seconds(*header.frames), seconds(loading.mix_frames)));
}

// What the look at a stem's header told.
struct JudgedStem {
  AudioHeader header;
  std::vector<std::string> warnings = {};  // those that wait for their turn
};

void hand_on(const std::vector<std::string>& warnings, const LineSink& message) {
  for (const std::string& warning : warnings) message(warning);
}

// Holds all headers against the mix. A warning behind a stem whose length only its decoding tells
// waits for it, so that all come in stem order; unless the run ends here.
std::vector<JudgedStem> judge_headers(const std::vector<StemInput>& plan,
                                      const StemLoading& loading, const LineSink& message,
                                      const StopToken& stop) {
  std::vector<JudgedStem> judged;
  judged.reserve(plan.size());
  bool all_lengths_known = true;
  try {
    for (const StemInput& stem : plan) {
      stop.check();
      JudgedStem& next = judged.emplace_back();
      next.header = check_audio_input(stem, stop);
      require_fit(stem, next.header, loading, [&](std::string_view line) {
        if (all_lengths_known) return message(line);
        next.warnings.emplace_back(line);
      });
      all_lengths_known = all_lengths_known && next.header.frames;
    }
  } catch (...) {
    for (const JudgedStem& stem : judged) hand_on(stem.warnings, message);
    throw;
  }
  return judged;
}

// A decoded stem, and what is to be said of it.
struct DecodedStem {
  StemArray audio;
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
  auto fitted = decode_fitted<float>(opened, stem, loading.mix_frames, loading.storage, stop);
  if (!opened.header.frames) {
    require_fit(stem, {opened.header.sr, opened.header.channels, fitted.frames}, loading, warn);
  }
  decoded.audio = std::move(fitted.audio);
  return decoded;
}

}  // namespace

LoadedAudio load(const std::string& path, const StopToken& stop, const SongStorage& storage) {
  AudioFile file(path);
  return {decode_whole(file, storage, stop), file.header().sr};
}

LoadedAudio load_audio_input(const StemInput& input, const StopToken& stop,
                             const SongStorage& storage) {
  if (input.files.size() == 1) return load(input.files.front(), stop, storage);
  OpenAudioInput pair = open_audio_input(input);
  return {decode_pair(pair, input, storage, stop), pair.header.sr};
}

StemMap load_stem_inputs(const std::vector<StemInput>& plan, const StemLoading& loading,
                         const LineSink& message, const StopToken& stop) {
  if (plan.empty()) throw ValueError("no tap files found");
  const std::vector<JudgedStem> judged = judge_headers(plan, loading, message, stop);
  // Several decode at once; results, warnings and the first failure come in stem order.
  auto decoded = _ordered_prefetch(
      [&](std::size_t i) { return decode_stem(plan[i], judged[i].header, loading, stop); },
      plan.size(), std::clamp<std::size_t>(loading.workers, 1, plan.size()), "verdel-decode");
  StemMap stems;
  stems.reserve(plan.size());
  for (std::size_t i = 0; i < plan.size(); ++i) {
    DecodedStem next = *decoded.next();
    hand_on(judged[i].warnings, message);
    hand_on(next.warnings, message);
    stems.push_back({plan[i].name, std::move(next.audio)});
  }
  return stems;
}

}  // namespace verdel::internal
