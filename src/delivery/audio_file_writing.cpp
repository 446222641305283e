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
constexpr std::uint64_t kSampleBytes = sizeof(float);

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

struct CloseSound {
  void operator()(SNDFILE* sound) const { sf_close(sound); }
};

}  // namespace

WavContainer wav_container(std::size_t channels, std::uint64_t frames) {
  constexpr std::uint64_t kMostData = std::numeric_limits<std::uint32_t>::max() - kHeaderAllowance;
  const bool fits = frames <= kMostData / (kSampleBytes * std::max<std::size_t>(channels, 1));
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
    const bool wav = format.container == WavContainer::kPlain;
    info.format = (wav ? SF_FORMAT_WAV : SF_FORMAT_RF64) | SF_FORMAT_FLOAT;
    SF_VIRTUAL_IO access{file_length, seek, read_bytes, write_bytes, tell};
    sound_.reset(sf_open_virtual(&access, SFM_WRITE, &info, &file_));
    if (!sound_) refuse(sf_strerror(nullptr));
    // The PEAK chunk holds the time of writing. RF64 files have none, and this very command would
    // give them one.
    if (wav) sf_command(sound_.get(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
    header_bytes_ = static_cast<std::uint64_t>(std::max<sf_count_t>(tell(&file_), 0));
    require_no_error();
    block_.resize(std::max(kBlockSamples / format.channels, std::size_t{1}) * format.channels);
  }

  template <class Sample>
  void write(RowsView<const Sample> audio, const StopToken& stop) {
    assert(audio.rows() == format_.channels);
    if (audio.columns() > format_.frames - written_) refuse("more frames than announced");
    const std::size_t most = block_.size() / format_.channels;
    for (std::size_t first = 0; first < audio.columns(); first += most) {
      stop.check();
      const std::size_t count = std::min(most, audio.columns() - first);
      for (std::size_t channel = 0; channel < format_.channels; ++channel) {
        const Sample* samples = audio.row(channel).data() + first;
        float* out = block_.data() + channel;
        for (std::size_t i = 0; i < count; ++i) {
          out[i * format_.channels] = static_cast<float>(samples[i]);
        }
      }
      const auto frames = static_cast<sf_count_t>(count);
      const sf_count_t done = sf_writef_float(sound_.get(), block_.data(), frames);
      require_no_error();
      if (done != frames) refuse(sf_strerror(sound_.get()));
      written_ += count;
    }
  }

  void commit() {
    if (written_ != format_.frames) refuse("fewer frames than announced");
    const int failure = sf_close(sound_.release());
    require_no_error();
    if (failure != 0) refuse(sf_error_number(failure));
    const std::uint64_t whole = header_bytes_ + written_ * format_.channels * kSampleBytes;
    const sf_count_t length = file_length(&file_);
    require_no_error();
    if (static_cast<std::uint64_t>(length) != whole) refuse("the file did not take all samples");
    unfinished_.take_target_name();
  }

 private:
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
  std::vector<float> block_;
};

AudioFileWriter::AudioFileWriter(const std::string& target, const AudioFileFormat& format)
    : output_(std::make_unique<Output>(target, format)) {}

AudioFileWriter::~AudioFileWriter() = default;

void AudioFileWriter::write(RowsView<const float> audio, const StopToken& stop) {
  output_->write(audio, stop);
}

void AudioFileWriter::write(RowsView<const double> audio, const StopToken& stop) {
  output_->write(audio, stop);
}

void AudioFileWriter::commit() {
  output_->commit();
}

}  // namespace verdel::internal
