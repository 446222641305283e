#include "chain/passages.hpp"

#include <algorithm>
#include <array>

namespace verdel::internal {
namespace {

constexpr std::size_t kPassages = 6;
constexpr double kPassageSeconds = 10.0;
constexpr double kLeadSeconds = 1.4;   // a room of 1.2 s, and the master's filter behind it
constexpr double kAheadSeconds = 0.1;  // half of the master's filter
constexpr std::size_t kAtOnce = 4096;

std::size_t samples(double seconds, int sr) {
  return static_cast<std::size_t>(seconds * sr);
}

void add(const Heard& part, Heard& sum) {
  for (std::size_t i = 0; i < sum.size(); ++i) sum.data()[i] += part.data()[i];
}

}  // namespace

void keep_only(std::span<const SampleSpan> spans, std::size_t first, std::span<float> audio) {
  std::size_t at = first;
  const auto silence = [&](std::size_t from, std::size_t to) {
    std::ranges::fill(audio.subspan(from - first, to - from), 0.0F);
  };
  for_each_overlap(spans, {first, first + audio.size()}, [&](std::size_t from, std::size_t stop) {
    silence(at, from);
    at = stop;
  });
  silence(at, first + audio.size());
}

Passages::Passages(const ChainJob& song, const HeardTaps& taps) : taps_(taps), job_(song) {
  job_.progress = {};
  choose(song.mix.columns(), song.sr);
  if (stretches_.size() == 1) return;
  mix_ = AudioArray::uninitialised(song.mix.rows(), frames_);
  for (std::size_t c = 0; c < song.mix.rows(); ++c) {
    for (std::size_t i = 0; i < stretches_.size(); ++i) {
      const std::size_t stop = i + 1 < stretches_.size() ? stretches_[i + 1].at : frames_;
      std::ranges::copy(song.mix.row(c).subspan(stretches_[i].from, stop - stretches_[i].at),
                        mix_.row(c).data() + stretches_[i].at);
    }
  }
  job_.mix = mix_.view();
}

void Passages::choose(std::size_t frames, int sr) {
  const std::size_t lead = samples(kLeadSeconds, sr), ahead = samples(kAheadSeconds, sr);
  const std::size_t length = lead + samples(kPassageSeconds, sr) + ahead;
  if (frames <= kPassages * length) {
    stretches_ = {{0, 0}};
    judged_ = {{0, frames}};
    frames_ = frames;
    return;
  }
  for (std::size_t i = 0; i < kPassages; ++i) {
    stretches_.push_back({i * length, i * (frames - length) / (kPassages - 1)});
    judged_.push_back({i * length + lead, (i + 1) * length - ahead});
  }
  frames_ = kPassages * length;
}

void Passages::read(std::size_t tap, std::size_t channel, std::size_t first,
                    std::span<float> into) const {
  const auto row = taps_.given(tap).row(channel);
  const auto size = static_cast<std::ptrdiff_t>(row.size());
  for (std::size_t i = 0; i < stretches_.size(); ++i) {
    const std::size_t begin = std::max(stretches_[i].at, first);
    const std::size_t next = i + 1 < stretches_.size() ? stretches_[i + 1].at : frames_;
    const std::size_t stop = std::min(next, first + into.size());
    if (begin >= stop) continue;
    const auto part = into.subspan(begin - first, stop - begin);
    const auto from = static_cast<std::ptrdiff_t>(stretches_[i].from + begin - stretches_[i].at) -
                      taps_.paths[tap].lag;
    const auto inside = std::clamp<std::ptrdiff_t>(from, 0, size);
    const auto outside =
        std::clamp<std::ptrdiff_t>(from + static_cast<std::ptrdiff_t>(part.size()), inside, size);
    std::ranges::fill(part, 0.0F);
    if (inside == outside) continue;
    std::transform(row.begin() + inside, row.begin() + outside, part.begin() + (inside - from),
                   [](double sample) { return static_cast<float>(sample); });
  }
}

void Passages::hear(std::size_t tap, const ChainFir* master, Heard& into, Heard& room) const {
  const auto fir = taps_.way(tap, master);
  Heard& given = fir ? room : into;
  run_indexed(job_.pool, given.rows(), [&](std::size_t c) { read(tap, c, 0, given.row(c)); });
  if (fir) play_to_measure(room.view(), *fir, job_, into);
}

void Passages::sum_given(Heard& into) const {
  for_each_part(job_, [&](const ChannelPart& part) {
    std::array<float, kAtOnce> tap_part;
    std::array<double, kAtOnce> sums;
    for (std::size_t first = part.span.first; first < part.span.stop; first += kAtOnce) {
      const auto row =
          into.row(part.channel).subspan(first, std::min(kAtOnce, part.span.stop - first));
      const auto given = std::span(tap_part).first(row.size());
      sums.fill(0.0);
      for (std::size_t tap = 0; tap < taps_.size(); ++tap) {
        if (taps_.paths[tap].own) continue;
        read(tap, part.channel, first, given);
        for (std::size_t i = 0; i < given.size(); ++i) sums[i] += static_cast<double>(given[i]);
      }
      for (std::size_t i = 0; i < row.size(); ++i) row[i] = static_cast<float>(sums[i]);
    }
  });
}

void Passages::hear_all(const ChainFir* master, Heard& into, Heard& room) const {
  sum_given(into);
  Heard own;
  for (std::size_t tap = 0; tap < taps_.size(); ++tap) {
    if (!taps_.paths[tap].own) continue;
    if (own.empty()) own = this->room();
    hear(tap, nullptr, own, room);
    add(own, into);
  }
  if (master == nullptr) return;
  play_to_measure(into.view(), *master, job_, room);
  std::swap(into, room);
}

void Passages::silence_rest(Heard& audio) const {
  for (std::size_t c = 0; c < audio.rows(); ++c) keep_only(judged_, 0, audio.row(c));
}

Passages::Cut Passages::some_judged(const Heard& audio) const {
  std::vector<SampleSpan> chosen;
  for (std::size_t i = 0; i < judged_.size(); i += 2) chosen.push_back(judged_[i]);
  std::size_t frames = 0;
  for (const SampleSpan& span : chosen) frames += span.length();
  Cut cut{AudioArray::uninitialised(audio.rows(), frames),
          Heard::uninitialised(audio.rows(), frames)};
  for (std::size_t c = 0; c < audio.rows(); ++c) {
    std::size_t at = 0;
    for (const SampleSpan& span : chosen) {
      std::ranges::copy(job_.mix.row(c).subspan(span.first, span.length()),
                        cut.mix.row(c).data() + at);
      std::ranges::copy(audio.row(c).subspan(span.first, span.length()),
                        cut.audio.row(c).data() + at);
      at += span.length();
    }
  }
  return cut;
}

}  // namespace verdel::internal
