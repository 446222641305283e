#include "inputs/audio_file.hpp"

#include <fmt/format.h>
#include <sndfile.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <exception>
#include <limits>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "inputs/audio_container.hpp"
#include "support/errors.hpp"
#include "support/number_text.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

sf_count_t decode(SNDFILE* file, double* into, sf_count_t frames) {
  return sf_readf_double(file, into, frames);
}
sf_count_t decode(SNDFILE* file, float* into, sf_count_t frames) {
  return sf_readf_float(file, into, frames);
}

// A source as the decoder reads it: patched, from a current position. A failure of the source
// waits here, because it must not pass through the decoder's C code.
struct DecoderInput {
  ByteSource source;
  std::vector<BytePatch> patches;
  sf_count_t position = 0;
  std::exception_ptr failure;

  sf_count_t read(std::span<unsigned char> into) {
    try {
      const auto offset = static_cast<std::uint64_t>(position);
      const std::size_t count = source.read_at(offset, into);
      for (const BytePatch& patch : patches) {
        for (std::size_t i = 0; i < patch.count; ++i) {
          const std::uint64_t place = patch.offset + i - offset;
          if (place < count) into[place] = patch.bytes[i];
        }
      }
      position += static_cast<sf_count_t>(count);
      return static_cast<sf_count_t>(count);
    } catch (...) {
      failure = std::current_exception();
      return 0;
    }
  }

  sf_count_t seek(sf_count_t offset, int whence) {
    const sf_count_t base = whence == SEEK_SET   ? 0
                            : whence == SEEK_CUR ? position
                                                 : static_cast<sf_count_t>(source.size);
    sf_count_t target = 0;
    if (__builtin_add_overflow(base, offset, &target) || target < 0) return -1;
    position = target;
    return position;
  }
};

DecoderInput& input_of(void* user_data) {
  return *static_cast<DecoderInput*>(user_data);
}

sf_count_t size_callback(void* user_data) {
  return static_cast<sf_count_t>(input_of(user_data).source.size);
}
sf_count_t seek_callback(sf_count_t offset, int whence, void* user_data) {
  return input_of(user_data).seek(offset, whence);
}
sf_count_t read_callback(void* into, sf_count_t count, void* user_data) {
  if (count <= 0) return 0;
  return input_of(user_data).read(
      {static_cast<unsigned char*>(into), static_cast<std::size_t>(count)});
}
sf_count_t tell_callback(void* user_data) {
  return input_of(user_data).position;
}

struct CloseFile {
  void operator()(SNDFILE* file) const { sf_close(file); }
};
using FileHandle = std::unique_ptr<SNDFILE, CloseFile>;

FileHandle open_decoder(DecoderInput& input, const std::string& path, SF_INFO& properties) {
  // The decoder keeps the reason of a failed opening in one place for the whole process.
  static std::mutex opening;
  const std::lock_guard lock(opening);
  SF_VIRTUAL_IO callbacks{size_callback, seek_callback, read_callback, nullptr, tell_callback};
  FileHandle file(sf_open_virtual(&callbacks, SFM_READ, &properties, &input));
  if (input.failure) std::rethrow_exception(input.failure);
  if (!file) {
    throw RuntimeError(fmt::format("cannot read {}: {}", quoted_path(path), sf_strerror(nullptr)));
  }
  return file;
}

// Bytes of one sample where every sample has the same; 0 for other encodings.
std::uint64_t sample_bytes(int format) {
  switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_ULAW:
    case SF_FORMAT_ALAW:
      return 1;
    case SF_FORMAT_PCM_16:
      return 2;
    case SF_FORMAT_PCM_24:
      return 3;
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_FLOAT:
      return 4;
    case SF_FORMAT_DOUBLE:
      return 8;
    default:
      return 0;
  }
}

std::optional<int> integer_bits_of(int format) {
  switch (format & SF_FORMAT_SUBMASK) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
      return 8;
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_ALAC_16:
    case SF_FORMAT_ULAW:
    case SF_FORMAT_ALAW:
      return 16;
    case SF_FORMAT_ALAC_20:
      return 20;
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_ALAC_24:
      return 24;
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_ALAC_32:
      return 32;
    default:
      return std::nullopt;
  }
}

/// A field of fixed length, which ends early at a zero.
template <std::size_t size>
std::string text_of(const char (&field)[size]) {
  return {field, std::find(field, field + size, '\0')};
}

bool is_flac_or_alac(int format) {
  constexpr std::array<int, 4> kAlac = {SF_FORMAT_ALAC_16, SF_FORMAT_ALAC_20, SF_FORMAT_ALAC_24,
                                        SF_FORMAT_ALAC_32};
  return (format & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC ||
         std::find(kAlac.begin(), kAlac.end(), format & SF_FORMAT_SUBMASK) != kAlac.end();
}

AudioHeader header_of(const SF_INFO& properties, const std::string& path) {
  // FLAC counts its samples in 36 bits; the decoder turns an absent count into a larger number.
  constexpr sf_count_t kMostFlacFrames = (sf_count_t{1} << 36) - 1;
  if (properties.samplerate < 1 || properties.channels < 1 || properties.frames < 0) {
    throw RuntimeError(fmt::format(
        "{} is damaged: {} Hz, {} and {} make no sense.", quoted_path(path), properties.samplerate,
        counted(properties.channels, "channel"), counted(properties.frames, "frame")));
  }
  AudioHeader header{properties.samplerate, static_cast<std::size_t>(properties.channels), {}};
  const bool is_flac = (properties.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC;
  if (!is_flac || properties.frames <= kMostFlacFrames) {
    header.frames = static_cast<std::size_t>(properties.frames);
  }
  return header;
}

}  // namespace

struct AudioFile::State {
  std::string path;
  DecoderInput input;
  FileHandle file;
  AudioHeader header;
  int format = 0;
  bool length_is_verified = false;
  std::size_t position = 0;  // frames decoded

  [[noreturn]] void fail_at_position() const {
    const std::string_view reason = sf_error(file.get()) != 0 ? sf_strerror(file.get()) : "";
    throw RuntimeError(fmt::format(
        "{} is damaged or cut short: decoding stopped after {}{}{}{}. Copy or bounce it again.",
        quoted_path(path),
        header.frames ? fmt::format("{} of {}", position, counted(*header.frames, "frame"))
                      : counted(position, "frame"),
        reason.empty() ? "" : " (", reason, reason.empty() ? "" : ")"));
  }
};

AudioFile::AudioFile(const std::string& path) : AudioFile(open_regular_file(path), path) {}

AudioFile::AudioFile(ByteSource source, const std::string& path)
    : state_(std::make_unique<State>()) {
  State& state = *state_;
  state.path = path;
  AudioContainer container = read_audio_container(source, path);
  state.input.source = source_from(std::move(source), container.start);
  state.input.patches = std::move(container.patches);
  SF_INFO properties{};
  state.file = open_decoder(state.input, path, properties);
  state.header = header_of(properties, path);
  state.format = properties.format;

  const std::uint64_t bytes = sample_bytes(properties.format);
  // A header may say different things to the walk and to the decoder.
  if (bytes == 0 && !is_flac_or_alac(properties.format)) fail_audio_encoding(path);
  if (!container.data_bytes || bytes == 0 || !state.header.frames) return;
  const std::uint64_t frames_present = *container.data_bytes / (bytes * state.header.channels);
  if (*state.header.frames < frames_present) {
    throw RuntimeError(
        fmt::format("{} cannot be read whole: only {} of its {} can be reached. Bounce it again, "
                    "beyond 4 GiB as RF64 or CAF.",
                    quoted_path(path), *state.header.frames, counted(frames_present, "frame")));
  }
  state.length_is_verified = *state.header.frames == frames_present;
}

AudioFile::~AudioFile() = default;
AudioFile::AudioFile(AudioFile&&) noexcept = default;

const std::string& AudioFile::path() const {
  return state_->path;
}
const AudioHeader& AudioFile::header() const {
  return state_->header;
}
bool AudioFile::length_is_verified() const {
  return state_->length_is_verified;
}

std::optional<int> AudioFile::integer_bits() const {
  return integer_bits_of(state_->format);
}

std::optional<BroadcastInfo> AudioFile::broadcast_info() const {
  SF_BROADCAST_INFO info{};
  if (sf_command(state_->file.get(), SFC_GET_BROADCAST_INFO, &info, sizeof info) != SF_TRUE) {
    return std::nullopt;
  }
  return BroadcastInfo{
      .description = text_of(info.description),
      .originator = text_of(info.originator),
      .date = text_of(info.origination_date),
      .time = text_of(info.origination_time),
      .time_reference = std::uint64_t{info.time_reference_high} << 32 | info.time_reference_low};
}

template <class Sample>
std::size_t AudioFile::read_samples(std::span<Sample> interleaved) {
  State& state = *state_;
  std::size_t wanted = interleaved.size() / state.header.channels;
  // No more than was promised: a decoder that looks beyond would take tags behind the audio for
  // damage.
  if (state.header.frames) wanted = std::min(wanted, *state.header.frames - state.position);
  if (wanted == 0) return 0;
  const sf_count_t decoded =
      decode(state.file.get(), interleaved.data(), static_cast<sf_count_t>(wanted));
  if (state.input.failure) std::rethrow_exception(state.input.failure);
  const std::size_t count = decoded < 0 ? 0 : static_cast<std::size_t>(decoded);
  state.position += count;
  const bool is_short = count < wanted;
  if (sf_error(state.file.get()) != 0 || (is_short && state.header.frames)) {
    state.fail_at_position();
  }
  return count;
}

std::size_t AudioFile::read(std::span<double> interleaved) {
  return read_samples(interleaved);
}

std::size_t AudioFile::read(std::span<float> interleaved) {
  return read_samples(interleaved);
}

bool AudioFile::last_frame_is_there() {
  State& state = *state_;
  if (!state.header.frames || *state.header.frames == 0) return true;
  const auto last = static_cast<sf_count_t>(*state.header.frames - 1);
  std::vector<double> frame(state.header.channels);
  const bool is_there = sf_seek(state.file.get(), last, SEEK_SET) == last &&
                        sf_readf_double(state.file.get(), frame.data(), 1) == 1 &&
                        sf_error(state.file.get()) == 0;
  if (state.input.failure) std::rethrow_exception(state.input.failure);
  state.position = *state.header.frames;
  return is_there;
}

}  // namespace verdel::internal
