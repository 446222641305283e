#include "delivery/audio_file_writing.hpp"

#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <limits>
#include <vector>

#include "delivery/unfinished_file.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kBlockSamples = 65536;  // all channels together; 256 KiB of floats
// Room for every chunk that the library puts before the samples, some hundred bytes with many
// channels.
constexpr std::uint64_t kHeaderAllowance = 4096;

// The library's way to the file. It reports a full disk by a short count in one place and not at
// all in another, so the system's first refusal is kept here and asked for after every call.
struct LibraryFile {
  int descriptor = -1;
  int error = 0;
};

sf_count_t file_length(void* user) {
  struct stat status {};
  auto& file = *static_cast<LibraryFile*>(user);
  if (fstat(file.descriptor, &status) == 0) return status.st_size;
  if (file.error == 0) file.error = errno;
  return -1;
}

sf_count_t seek(sf_count_t offset, int whence, void* user) {
  auto& file = *static_cast<LibraryFile*>(user);
  const off_t position = lseek(file.descriptor, offset, whence);
  if (position < 0 && file.error == 0) file.error = errno;
  return position;
}

sf_count_t read_bytes(void* target, sf_count_t count, void* user) {
  auto& file = *static_cast<LibraryFile*>(user);
  const ssize_t got = read(file.descriptor, target, static_cast<std::size_t>(count));
  if (got < 0 && file.error == 0) file.error = errno;
  return std::max<ssize_t>(got, 0);
}

sf_count_t write_bytes(const void* source, sf_count_t count, void* user) {
  auto& file = *static_cast<LibraryFile*>(user);
  const char* bytes = static_cast<const char*>(source);
  sf_count_t done = 0;
  while (done < count && file.error == 0) {
    const ssize_t put =
        write(file.descriptor, bytes + done, static_cast<std::size_t>(count - done));
    if (put >= 0) {
      done += put;
    } else if (errno != EINTR) {
      file.error = errno;
    }
  }
  return done;
}

sf_count_t tell(void* user) {
  return seek(0, SEEK_CUR, user);
}

int library_format(const AudioFileFormat& format) {
  const int samples = format.samples == SampleType::kInteger16   ? SF_FORMAT_PCM_16
                      : format.samples == SampleType::kInteger24 ? SF_FORMAT_PCM_24
                                                                 : SF_FORMAT_FLOAT;
  switch (format.type) {
    case FileType::kFlac:
      return SF_FORMAT_FLAC | samples;
    case FileType::kAiff:
      return SF_FORMAT_AIFF | samples;
    case FileType::kWav:
      break;
  }
  return (format.container == WavContainer::kPlain ? SF_FORMAT_WAV : SF_FORMAT_RF64) | samples;
}

/// Text that is too long loses its end, and none of a character's bytes stands without the others.
template <std::size_t size>
void fill_field(char (&field)[size], const std::string& text) {
  std::size_t length = std::min(text.size(), size);
  const auto inside_character = [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
  };
  while (length < text.size() && length > 0 && inside_character(text[length])) --length;
  std::copy_n(text.begin(), length, field);
}

SF_BROADCAST_INFO library_info(const BroadcastInfo& broadcast) {
  SF_BROADCAST_INFO info{};
  fill_field(info.description, broadcast.description);
  fill_field(info.originator, broadcast.originator);
  fill_field(info.origination_date, broadcast.date);
  fill_field(info.origination_time, broadcast.time);
  info.time_reference_low = static_cast<std::uint32_t>(broadcast.time_reference);
  info.time_reference_high = static_cast<std::uint32_t>(broadcast.time_reference >> 32);
  info.version = 1;
  return info;
}

struct CloseSound {
  void operator()(SNDFILE* sound) const { sf_close(sound); }
};

}  // namespace

std::size_t bytes_of(SampleType samples) {
  return samples == SampleType::kInteger16 ? 2 : samples == SampleType::kInteger24 ? 3 : 4;
}

WavContainer wav_container(std::size_t channels, std::uint64_t frames, SampleType samples) {
  constexpr std::uint64_t kMostData = std::numeric_limits<std::uint32_t>::max() - kHeaderAllowance;
  const bool fits = frames <= kMostData / (bytes_of(samples) * std::max<std::size_t>(channels, 1));
  return fits ? WavContainer::kPlain : WavContainer::kRf64;
}

class AudioFileWriter::Output {
 public:
  Output(const std::string& target, const AudioFileFormat& format)
      : target_(target), format_(format), unfinished_(target) {
    file_.descriptor = unfinished_.descriptor();
    SF_INFO info{};
    info.samplerate = format.sr;
    info.channels = static_cast<int>(format.channels);
    info.format = library_format(format);
    SF_VIRTUAL_IO access{file_length, seek, read_bytes, write_bytes, tell};
    sound_.reset(sf_open_virtual(&access, SFM_WRITE, &info, &file_));
    if (!sound_) refuse(sf_strerror(nullptr));
    // The PEAK chunk holds the time of writing. RF64 files have none, and this very command would
    // give them one.
    if (format.container == WavContainer::kPlain) {
      sf_command(sound_.get(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
    }
    if (format.broadcast) {
      SF_BROADCAST_INFO broadcast = library_info(*format.broadcast);
      sf_command(sound_.get(), SFC_SET_BROADCAST_INFO, &broadcast, sizeof broadcast);
      // Now, so that the header's length is known.
      sf_command(sound_.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
    }
    header_bytes_ = static_cast<std::uint64_t>(std::max<sf_count_t>(tell(&file_), 0));
    require_no_error();
    block_frames_ = std::max(kBlockSamples / format.channels, std::size_t{1});
  }

  void write(RowsView<const float> audio, const StopToken& stop) {
    assert(format_.samples == SampleType::kFloat32);
    append(
        audio, floats_, sf_writef_float, [](float x) { return x; }, stop);
  }
  void write(RowsView<const double> audio, const StopToken& stop) {
    assert(format_.samples == SampleType::kFloat32);
    append(
        audio, floats_, sf_writef_float, [](double x) { return static_cast<float>(x); }, stop);
  }
  void write(RowsView<const std::int32_t> audio, const StopToken& stop) {
    assert(format_.samples != SampleType::kFloat32);
    // The library takes the upper bits of 32.
    const int step = 1 << (32 - 8 * static_cast<int>(bytes_of(format_.samples)));
    append(
        audio, integers_, sf_writef_int, [step](int x) { return x * step; }, stop);
  }

  const std::string& finish() {
    if (!sound_) return unfinished_.path();
    if (written_ != format_.frames) refuse("fewer frames than announced");
    const int failure = sf_close(sound_.release());
    require_no_error();
    if (failure != 0) refuse(sf_error_number(failure));
    if (format_.type != FileType::kFlac) require_length();
    return unfinished_.path();
  }

  void commit() {
    finish();
    unfinished_.take_target_name();
  }

 private:
  template <class Sample, class Stored, class Write, class Convert>
  void append(RowsView<const Sample> audio, std::vector<Stored>& block, Write write_frames,
              Convert convert, const StopToken& stop) {
    assert(audio.rows() == format_.channels);
    if (audio.columns() > format_.frames - written_) refuse("more frames than announced");
    block.resize(block_frames_ * format_.channels);
    for (std::size_t first = 0; first < audio.columns(); first += block_frames_) {
      stop.check();
      const std::size_t count = std::min(block_frames_, audio.columns() - first);
      for (std::size_t channel = 0; channel < format_.channels; ++channel) {
        const Sample* samples = audio.row(channel).data() + first;
        Stored* out = block.data() + channel;
        for (std::size_t i = 0; i < count; ++i) out[i * format_.channels] = convert(samples[i]);
      }
      const auto frames = static_cast<sf_count_t>(count);
      const sf_count_t done = write_frames(sound_.get(), block.data(), frames);
      require_no_error();
      if (done != frames) refuse(sf_strerror(sound_.get()));
      written_ += count;
    }
  }

  void require_length() {
    const std::uint64_t samples = written_ * format_.channels * bytes_of(format_.samples);
    const std::uint64_t whole = header_bytes_ + samples + samples % 2;  // chunks are of even length
    const sf_count_t length = file_length(&file_);
    require_no_error();
    if (static_cast<std::uint64_t>(length) != whole) refuse("the file did not take all samples");
  }
  void require_no_error() const {
    if (file_.error != 0) unfinished_.refuse(file_.error);
  }
  [[noreturn]] void refuse(const std::string& reason) const {
    require_no_error();
    throw OSError("cannot write " + quoted_path(target_) + ": " + reason);
  }

  std::string target_;
  AudioFileFormat format_;
  UnfinishedFile unfinished_;
  LibraryFile file_;
  std::unique_ptr<SNDFILE, CloseSound> sound_;
  std::uint64_t header_bytes_ = 0, written_ = 0;
  std::size_t block_frames_ = 0;
  std::vector<float> floats_;
  std::vector<int> integers_;
};

AudioFileWriter::AudioFileWriter(const std::string& target, const AudioFileFormat& format)
    : output_(std::make_unique<Output>(target, format)) {}

AudioFileWriter::~AudioFileWriter() = default;
AudioFileWriter::AudioFileWriter(AudioFileWriter&&) noexcept = default;

void AudioFileWriter::write(RowsView<const float> audio, const StopToken& stop) {
  output_->write(audio, stop);
}

void AudioFileWriter::write(RowsView<const double> audio, const StopToken& stop) {
  output_->write(audio, stop);
}

void AudioFileWriter::write(RowsView<const std::int32_t> audio, const StopToken& stop) {
  output_->write(audio, stop);
}

const std::string& AudioFileWriter::finish() {
  return output_->finish();
}

void AudioFileWriter::commit() {
  output_->commit();
}

}  // namespace verdel::internal
