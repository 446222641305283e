#include "handover/hand_over.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <memory>

#include "delivery/output_place.hpp"
#include "delivery/text_file_writing.hpp"
#include "delivery/unfinished_file.hpp"
#include "handover/sha256.hpp"
#include "inputs/audio_blocks.hpp"
#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/number_text.hpp"
#include "support/thread_pool.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

constexpr std::size_t kMostFlacChannels = 8;
constexpr int kMostFlacRate = 655350;  // Hz

double dbfs(double amplitude) {
  return amplitude > 0.0 ? 20.0 * std::log10(amplitude) : -999.0;
}

void require_like_mix(const StemInput& stem, const AudioBlocks& opened, const HandoverPlan& plan,
                      const StopToken& stop) {
  const AudioHeader& header = opened.header();
  const auto require = [&](std::size_t has, std::size_t mix, const char* what) {
    if (has == mix) return;
    throw ValueError(fmt::format("{}: {} {}, where the mix has {}. Deliver the stems of this mix.",
                                 quoted_path(stem.files.front()), has, what, mix));
  };
  require(static_cast<std::size_t>(header.sr), static_cast<std::size_t>(plan.sr), "Hz");
  require(header.channels, plan.channels, "channels");
  require(count_frames(stem, stop), plan.frames, "frames");
}

void require_container_holds(const DeliveryFormat& format, const HandoverPlan& plan) {
  if (format.type == FileType::kWav) return;
  if (!format.is_integer()) {
    throw ValueError(
        "FLAC and AIFF are delivered with 16 or 24 bits. Pass --bits, or --format wav.");
  }
  if (format.type == FileType::kFlac) {
    if (plan.channels <= kMostFlacChannels && plan.sr <= kMostFlacRate) return;
    throw ValueError(fmt::format("FLAC holds at most {} channels and {} Hz. Pass --format wav.",
                                 kMostFlacChannels, kMostFlacRate));
  }
  if (wav_container(plan.channels, plan.frames, format.samples) == WavContainer::kRf64) {
    throw ValueError("an AIFF file holds at most 4 GiB. Pass --format wav or --format flac.");
  }
}

/// One file of the delivery while it comes into being.
struct Part {
  std::string file;  ///< its name in the folder
  AudioFileWriter writer;
  StemMeter meter;
};

/// The inputs of a delivery, read together block by block.
class Sources {
 public:
  Sources(const StemInput& mix, const std::vector<StemInput>& stems, const HandoverPlan& plan)
      : channels_(plan.channels), left_(plan.frames) {
    add(mix);
    for (const StemInput& stem : stems) add(stem);
  }

  /// The next frames of all; 0 at the end.
  std::size_t next(ThreadPool* pool) {
    frames_ = std::min(left_, kRoundingFrames);
    run_indexed(pool, inputs_.size(), [&](std::size_t i) {
      const RowsView<double> block(samples_[i].data(), channels_, frames_, kRoundingFrames);
      if (inputs_[i].read(block) != frames_) {
        throw RuntimeError(quoted_path(inputs_[i].files().front().path()) +
                           " has become shorter while it was read.");
      }
    });
    left_ -= frames_;
    return frames_;
  }

  std::span<const double> mix(std::size_t channel) const { return row(0, channel); }
  std::span<const double> stem(std::size_t index, std::size_t channel) const {
    return row(index + 1, channel);
  }
  AudioView stem(std::size_t index) const {
    return {samples_[index + 1].data(), channels_, frames_, kRoundingFrames};
  }

 private:
  void add(const StemInput& input) {
    inputs_.emplace_back(input);
    samples_.push_back(AudioArray::uninitialised(channels_, kRoundingFrames));
  }
  std::span<const double> row(std::size_t input, std::size_t channel) const {
    return samples_[input].row(channel).first(frames_);
  }

  std::size_t channels_, left_, frames_ = 0;
  std::vector<AudioBlocks> inputs_;
  std::vector<AudioArray> samples_;
};

class Delivery {
 public:
  Delivery(const Handover& job, const HandoverPlan& plan)
      : job_(job), plan_(plan), blocks_((plan.frames + kRoundingFrames - 1) / kRoundingFrames) {
    if (job.workers > 1) pool_ = std::make_unique<ThreadPool>(job.workers, "verdel-deliver");
  }

  HandedOver run(double threshold);

 private:
  std::string path_of(const std::string& name) const { return join(job_.to, name); }
  StemInput mix_as_written() { return {"mix", {mix_->writer.finish()}}; }
  void tell(const char* phase, std::size_t block) const {
    if (job_.progress) job_.progress(phase, block, blocks_);
    job_.stop.check();
  }

  MixRounding survey_mix();
  void require_mix_fits(const MixRounding& rounding) const;
  void open_parts();
  void round_and_write(std::vector<StemRounding>& roundings);
  void write_floats();
  void round_channel(const Sources& sources, std::size_t channel, std::size_t first,
                     std::vector<StemRounding>& tallies);
  std::vector<StemInput> finish_parts();
  void prove_integers(const std::vector<StemInput>& written);
  double prove_floats(const std::vector<StemInput>& written);
  Manifest name_parts(const std::vector<StemInput>& written, bool exact);

  const Handover& job_;
  const HandoverPlan& plan_;
  std::size_t blocks_;
  std::unique_ptr<ThreadPool> pool_;
  std::vector<Part> parts_;  ///< by stem
  std::optional<Part> mix_;
  std::vector<Array2D<std::int32_t>> rounded_;  ///< by stem, [channels][frames of a block]
  Array2D<std::int32_t> target_;                ///< the same of the mix
};

MixRounding Delivery::survey_mix() {
  MixRounding rounding;
  Sources sources(job_.mix, {}, plan_);
  std::vector<std::int32_t> rounded(kRoundingFrames);
  std::size_t first = 0;
  while (const std::size_t count = sources.next(nullptr)) {
    job_.stop.check();
    for (std::size_t c = 0; c < plan_.channels; ++c) {
      round_mix(sources.mix(c), job_.format.grid(), c, first, std::span(rounded).first(count),
                rounding);
    }
    first += count;
  }
  return rounding;
}

void Delivery::require_mix_fits(const MixRounding& rounding) const {
  const SampleCount& beyond = rounding.beyond;
  if (beyond.samples == 0) return;
  const std::string place = place_text(beyond.frame, beyond.channel, plan_.sr);
  if (!std::isfinite(beyond.largest)) {
    throw ValueError(fmt::format("{}: {} of {} holds no number. Bounce it again.",
                                 quoted_path(job_.mix.files.front()), place,
                                 counted(beyond.samples, "sample")));
  }
  const double excess = dbfs(beyond.largest / job_.format.grid().steps());
  throw ValueError(
      fmt::format("{} passes full scale at {}, the first {}, by up to {:.2f} dB: integers cannot "
                  "hold that, and no stem has room for what their sum has not. Turn the mix down "
                  "by {:.2f} dB and render again, or pass --bits 32f.",
                  quoted_path(job_.mix.files.front()), counted(beyond.samples, "sample"), place,
                  excess, std::ceil(excess * 100.0) / 100.0));
}

void Delivery::open_parts() {
  const AudioBlocks mix(job_.mix);
  const auto place = mix.files().front().broadcast_info();
  const auto part = [&](const std::string& name, const std::string& description) {
    AudioFileFormat format{.sr = plan_.sr,
                           .channels = plan_.channels,
                           .frames = plan_.frames,
                           .type = job_.format.type,
                           .samples = job_.format.samples};
    if (format.type == FileType::kWav) {
      format.broadcast =
          place.value_or(BroadcastInfo{.description = description, .originator = "VERDEL"});
    }
    return Part{name, AudioFileWriter(path_of(name), format), StemMeter(plan_.channels, plan_.sr)};
  };
  for (std::size_t s = 0; s < job_.stems.size(); ++s) {
    parts_.push_back(part(plan_.names.stems[s], job_.mix.name + ", " + job_.stems[s].name));
  }
  if (plan_.rounds_mix) mix_.emplace(part(plan_.names.mix, job_.mix.name));
}

void Delivery::round_channel(const Sources& sources, std::size_t channel, std::size_t first,
                             std::vector<StemRounding>& tallies) {
  const auto mix = sources.mix(channel);
  const std::size_t frames = mix.size();
  const auto target = target_.row(channel).first(frames);
  MixRounding surveyed;
  round_mix(mix, job_.format.grid(), channel, first, target, surveyed);
  RoundingBlock block{.channel = channel,
                      .first = first,
                      .target = target,
                      .stems = {},
                      .rounded = {},
                      .grid = job_.format.grid()};
  for (std::size_t s = 0; s < job_.stems.size(); ++s) {
    block.stems.push_back(sources.stem(s, channel));
    block.rounded.push_back(rounded_[s].row(channel).first(frames));
  }
  const auto missed = round_together(block, tallies);
  if (!missed) return;
  const std::string place = place_text(missed->frame, channel, plan_.sr);
  if (std::isinf(missed->steps)) {
    throw ValueError(fmt::format(
        "a stem holds no number, or one far beyond full scale, at {}. Render again.", place));
  }
  throw ValueError(fmt::format(
      "the stems do not add up to the mix: they miss it by {:.1f} dBFS at {}, and what rounds to "
      "{} bits may miss it by {:.1f}. Deliver the stems that were rendered against this mix.",
      dbfs(std::abs(missed->steps) / job_.format.grid().steps()), place, job_.format.bits(),
      dbfs(kMostMissingSteps / job_.format.grid().steps())));
}

void Delivery::round_and_write(std::vector<StemRounding>& roundings) {
  const std::size_t channels = plan_.channels, stems = job_.stems.size();
  Sources sources(job_.mix, job_.stems, plan_);
  target_ = Array2D<std::int32_t>::uninitialised(channels, kRoundingFrames);
  for (std::size_t s = 0; s < stems; ++s) {
    rounded_.push_back(Array2D<std::int32_t>::uninitialised(channels, kRoundingFrames));
  }
  std::vector<std::vector<StemRounding>> tallies(channels, std::vector<StemRounding>(stems));
  const double scale = 1.0 / job_.format.grid().steps();
  std::size_t first = 0, block = 0;
  tell("write", 0);
  while (const std::size_t count = sources.next(pool_.get())) {
    run_indexed(pool_.get(), channels,
                [&](std::size_t c) { round_channel(sources, c, first, tallies[c]); });
    const auto write = [&](Part& part, const Array2D<std::int32_t>& integers) {
      part.writer.write(
          RowsView<const std::int32_t>(integers.data(), channels, count, kRoundingFrames),
          job_.stop);
    };
    run_indexed(pool_.get(), stems + (mix_ ? 1 : 0), [&](std::size_t s) {
      if (s == stems) return write(*mix_, target_);
      write(parts_[s], rounded_[s]);
      auto audio = AudioArray::uninitialised(channels, count);
      for (std::size_t c = 0; c < channels; ++c) {
        const auto row = rounded_[s].row(c).first(count);
        std::ranges::transform(row, audio.row(c).begin(), [scale](int x) { return x * scale; });
      }
      parts_[s].meter.add(audio.view());
    });
    first += count;
    tell("write", ++block);
  }
  roundings.assign(stems, {});
  for (const auto& channel : tallies) {
    for (std::size_t s = 0; s < stems; ++s) roundings[s].add(channel[s]);
  }
}

void Delivery::write_floats() {
  Sources sources(job_.mix, job_.stems, plan_);
  std::size_t block = 0;
  tell("write", 0);
  while (sources.next(pool_.get()) != 0) {
    run_indexed(pool_.get(), parts_.size(), [&](std::size_t s) {
      parts_[s].writer.write(sources.stem(s), job_.stop);
      parts_[s].meter.add(sources.stem(s));
    });
    tell("write", ++block);
  }
}

std::vector<StemInput> Delivery::finish_parts() {
  std::vector<StemInput> written;
  for (std::size_t s = 0; s < parts_.size(); ++s) {
    written.push_back({job_.stems[s].name, {parts_[s].writer.finish()}});
  }
  return written;
}

void Delivery::prove_integers(const std::vector<StemInput>& written) {
  std::vector<StemInput> all = written;
  if (mix_) all.push_back(mix_as_written());
  const IntegerGrid grid = job_.format.grid();
  const auto whole = [&](double x) { return std::llrint(x * grid.steps()); };
  Sources sources(job_.mix, all, plan_);
  std::vector<std::int32_t> target(kRoundingFrames);
  std::vector<std::int64_t> sum(kRoundingFrames);
  std::size_t first = 0, block = 0;
  tell("prove", 0);
  while (const std::size_t count = sources.next(pool_.get())) {
    for (std::size_t c = 0; c < plan_.channels; ++c) {
      MixRounding ignored;
      round_mix(sources.mix(c), grid, c, first, std::span(target).first(count), ignored);
      std::ranges::fill(sum, 0);
      for (std::size_t s = 0; s < written.size(); ++s) {
        const auto row = sources.stem(s, c);
        for (std::size_t i = 0; i < count; ++i) sum[i] += whole(row[i]);
      }
      for (std::size_t i = 0; i < count; ++i) {
        const bool mix_holds = !mix_ || whole(sources.stem(written.size(), c)[i]) == target[i];
        if (sum[i] == target[i] && mix_holds) continue;
        throw RuntimeError(
            fmt::format("the written files do not sum to the mix at {}: a file does not hold what "
                        "was written to it. Check the disk and deliver again.",
                        place_text(first + i, c, plan_.sr)));
      }
    }
    first += count;
    tell("prove", ++block);
  }
}

double Delivery::prove_floats(const std::vector<StemInput>& written) {
  Sources sources(job_.mix, written, plan_);
  double peak = 0.0;
  std::size_t block = 0;
  tell("prove", 0);
  while (const std::size_t count = sources.next(pool_.get())) {
    for (std::size_t c = 0; c < plan_.channels; ++c) {
      for (std::size_t i = 0; i < count; ++i) {
        double sum = 0.0;
        for (std::size_t s = 0; s < written.size(); ++s) sum += sources.stem(s, c)[i];
        const double left = std::abs(sources.mix(c)[i] - sum);
        if (!(left <= peak)) peak = std::isnan(peak) ? peak : left;
      }
    }
    tell("prove", ++block);
  }
  return std::isnan(peak) ? peak : dbfs(peak);
}

Manifest Delivery::name_parts(const std::vector<StemInput>& written, bool exact) {
  Manifest manifest{.sr = plan_.sr,
                    .bits = job_.format.bits(),
                    .frames = plan_.frames,
                    .sums_exactly = exact,
                    .mix = {},
                    .stems = {}};
  std::vector<std::string> hashes(parts_.size() + 1);
  run_indexed(pool_.get(), parts_.size() + (mix_ ? 1 : 0), [&](std::size_t i) {
    const bool is_mix = i == parts_.size();
    hashes[i] =
        sha256_of_file(is_mix ? mix_->writer.finish() : written[i].files.front(), job_.stop);
  });
  for (std::size_t s = 0; s < parts_.size(); ++s) {
    manifest.stems.push_back(
        {job_.stems[s].name, {parts_[s].file, hashes[s]}, parts_[s].meter.levels()});
  }
  if (mix_) manifest.mix = ManifestFile{mix_->file, hashes.back()};
  job_.stop.check();
  for (Part& part : parts_) part.writer.commit();
  if (mix_) mix_->writer.commit();
  write_text_file(path_of(kManifestName), manifest_text(manifest));
  return manifest;
}

HandedOver Delivery::run(double threshold) {
  HandedOver done;
  if (job_.format.is_integer()) {
    done.mix_rounding = survey_mix();
    require_mix_fits(done.mix_rounding);
  }
  std::vector<std::string> files = {path_of(kManifestName)};
  for (const std::string& name : plan_.names.stems) files.push_back(path_of(name));
  if (plan_.rounds_mix) files.push_back(path_of(plan_.names.mix));
  make_folder(job_.to);
  sweep_unfinished_files(job_.to, files);
  require_usable_place(job_.to, files);

  open_parts();
  if (job_.format.is_integer()) {
    round_and_write(done.stem_roundings);
  } else {
    write_floats();
  }
  const std::vector<StemInput> written = finish_parts();
  bool exact = true;
  if (job_.format.is_integer()) {
    prove_integers(written);
  } else {
    done.null_peak = prove_floats(written);
    exact = done.null_peak == -999.0;
    if (!(done.null_peak < threshold)) {
      throw ValueError(
          fmt::format("the stems do not add up to the mix: they miss it by {} dBFS. Deliver the "
                      "stems that were rendered against this mix.",
                      one_decimal(done.null_peak)));
    }
  }
  done.manifest = name_parts(written, exact);
  return done;
}

}  // namespace

std::string DeliveryFormat::bits() const {
  return is_integer() ? std::to_string(grid().bits) : "32f";
}

std::string DeliveryFormat::extension() const {
  return type == FileType::kFlac ? ".flac" : type == FileType::kAiff ? ".aiff" : ".wav";
}

std::string place_text(std::size_t frame, std::size_t channel, int sr) {
  return fmt::format("sample {} ({:.3f} s) of channel {}", frame, static_cast<double>(frame) / sr,
                     channel + 1);
}

HandoverPlan plan_handover(const Handover& job, const std::string& name_template) {
  assert(!job.stems.empty());
  const AudioBlocks mix(job.mix);
  HandoverPlan plan{.sr = mix.header().sr,
                    .channels = mix.header().channels,
                    .frames = count_frames(job.mix, job.stop),
                    .mix_bits = mix.integer_bits(),
                    .rounds_mix = false,
                    .names = {}};
  if (job.format.is_integer()) {
    plan.rounds_mix = !plan.mix_bits || *plan.mix_bits > job.format.grid().bits;
  }
  NamingPlan naming{.name_template = name_template,
                    .song = job.mix.name,
                    .stems = {},
                    .sr = plan.sr,
                    .bits = job.format.bits(),
                    .extension = job.format.extension(),
                    .with_mix = plan.rounds_mix};
  for (const StemInput& stem : job.stems) {
    require_like_mix(stem, AudioBlocks(stem), plan, job.stop);
    naming.stems.push_back(stem.name);
  }
  require_container_holds(job.format, plan);
  plan.names = delivery_names(naming);
  return plan;
}

HandedOver hand_over(const Handover& job, const HandoverPlan& plan, double threshold) {
  return Delivery(job, plan).run(threshold);
}

}  // namespace verdel::internal
