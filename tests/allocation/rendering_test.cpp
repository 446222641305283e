#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <functional>
#include <numbers>

#include "allocation/channel_render.hpp"
#include "allocation/channels.hpp"
#include "allocation/interval_rendering.hpp"
#include "allocation/spectral_frames.hpp"
#include "signal/instruction_sets.hpp"
#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/machines.hpp"
#include "support/noise.hpp"

namespace verdel::internal {
namespace {

using testing::failure_of;
// A song in miniature: drums with a noisy tail, held tones and plucked basses under a moving gain,
// and what it leaves unexplained: a ringing of all of them that outlasts the drums.
struct Song {
  StemMap taps;
  AudioArray gain, mix;
};

Song test_song(std::size_t samples, int sr, std::size_t stems = 3) {
  Song song{.taps = {},
            .gain = AudioArray::uninitialised(2, samples),
            .mix = testing::noise_array(2, samples, 7)};
  for (std::size_t s = 0; s < stems; ++s) song.taps.push_back({"", StemArray::zeros(2, samples)});
  for (const std::size_t channel : {0U, 1U}) {
    double ringing = 0.0;
    for (std::size_t i = 0; i < samples; ++i) {
      double& mix = song.mix.row(channel)[i];
      const double time = static_cast<double>(i) / sr, hiss = mix;
      const double gain = song.gain.row(channel)[i] = 0.9 + 0.1 * std::sin(2.0 * time);
      double sum = 0.0;
      for (std::size_t s = 0; s < stems; ++s) {
        const double phase = 180.0 * std::numbers::pi * static_cast<double>(s + 1) * time;
        const double beat = std::fmod(time + 0.07 * static_cast<double>(s), 0.5);
        const double sounds[] = {0.5 * hiss * std::exp(-beat * 60.0), 0.2 * std::sin(4.0 * phase),
                                 0.4 * std::sin(phase) * std::exp(-beat * 6.0)};
        float& tap = song.taps[s].audio.row(channel)[i];
        tap = static_cast<float>(sounds[s % 3] / gain);
        sum += static_cast<double>(tap) * gain;
      }
      ringing = 0.9995 * ringing + 0.05 * sum * hiss;
      mix = 1.05 * sum + 0.1 * ringing;
    }
  }
  return song;
}

ChannelJob job_of(const Song& song, int sr, std::size_t channel = 0) {
  ChannelJob job;
  for (const auto& tap : song.taps) job.taps.push_back(tap.audio.row(channel));
  job.gain = song.gain.row(channel);
  job.mix = song.mix.row(channel);
  job.sr = sr;
  job.stop = song.mix.columns();
  return job;
}

// One render of the whole signal.
AudioArray render_full(const ChannelJob& job) {
  auto rendered = AudioArray::zeros(job.stems(), job.samples());
  _render_transient_release_tail_channel_full(
      job, [&](std::size_t first, RowsView<const double> stems) {
        for (std::size_t s = 0; s < job.stems(); ++s) {
          std::ranges::copy(stems.row(s), rendered.row(s).subspan(first).begin());
        }
      });
  return rendered;
}

Machine roomy(std::size_t processors) {
  return testing::machine_with(processors, std::uint64_t{64} << 30U, std::uint64_t{64} << 30U);
}

// In one piece and in three, and in excerpts, of the whole song and of the part that a render looks
// at, on all instruction sets.
TEST(Rendering, GivesTheSameBitsHoweverItIsCutAndShared) {
  constexpr int kRate = 8000;
  constexpr std::size_t kEnd = kRate * 62 + 77;
  const Song song = test_song(kEnd, kRate);
  const AudioArray whole[] = {render_full(job_of(song, kRate)),
                              render_full(job_of(song, kRate, 1))};
  const struct {
    std::size_t processors, start, stop;
    InstructionSet set = best_instruction_set();
  } kCases[] = {{1, 0, kEnd, InstructionSet::kBaseline},
                {2, 0, kEnd},
                {8, 0, kEnd},
                {1, 0, 3000},
                {8, 150001, 171234},
                {2, kEnd - 10, kEnd}};
  for (const auto& c : kCases) {
    use_instruction_set(c.set);
    const ChannelsJob job{.sr = kRate, .start = c.start, .stop = c.stop};
    const SampleSpan range{c.start, c.stop};
    const Model model = model_of_part(song.taps, AudioArray::copy_of(song.gain.view()),
                                      song.mix.view(), with_context(range, kEnd));
    AudioArray stems[] = {AudioArray::zeros(3, range.length()),
                          AudioArray::zeros(3, range.length())};
    const auto store = [&](std::size_t channel, std::size_t first, RowsView<const double> part) {
      for (std::size_t s = 0; s < 3; ++s) {
        std::ranges::copy(part.row(s), stems[channel].row(s).subspan(first - c.start).begin());
      }
    };
    render_channels(model, job, roomy(c.processors), store);
    for (std::size_t s = 0; s < 3; ++s) {
      for (std::size_t channel = 0; channel < 2; ++channel) {
        EXPECT_TRUE(std::ranges::equal(stems[channel].row(s),
                                       whole[channel].row(s).subspan(c.start, c.stop - c.start)))
            << "stem " << s << ", channel " << channel << " from " << c.start << " on "
            << c.processors << " processors";
      }
    }
  }
  use_instruction_set(best_instruction_set());
}

// The last two stems are silent in the second half of the song, and one of them throughout: what is
// then left out must stay below what anybody hears, and the sum whole.
TEST(Rendering, LeavesOutWhatSilenceClaims) {
  constexpr int kRate = 8000;
  constexpr std::size_t kEnd = kRate * 30;
  Song song = test_song(kEnd, kRate, 4);
  std::ranges::fill(song.taps[3].audio.row(0), 0.0F);
  std::ranges::fill(song.taps[2].audio.row(0).subspan(kEnd / 2), 0.0F);
  const AudioArray silent = render_full(job_of(song, kRate));
  // A sample far below all others keeps the silence from being seen, and changes nothing else.
  for (std::size_t i = 0; i < kEnd; i += 1000) {
    for (const std::size_t s : {2U, 3U}) {
      float& sample = song.taps[s].audio.row(0)[i];
      if (sample == 0.0F) sample = 1e-30F;
    }
  }
  const AudioArray whole = render_full(job_of(song, kRate));
  for (std::size_t s = 0; s < 4; ++s) {
    for (std::size_t i = 0; i < kEnd; ++i) {
      ASSERT_NEAR(silent.row(s)[i], whole.row(s)[i], 3e-8) << "stem " << s << " at " << i;
    }
  }
}

// At one sample a second: three intervals of a minute, four of a second more.
TEST(Rendering, CountsTheStepsOfIntervalsFromAMinuteOn) {
  const Song song = test_song(2100, 1);
  for (const auto& [length, intervals] :
       {std::pair<std::size_t, std::size_t>{59, 1}, {60, 3}, {61, 4}, {436, 22}}) {
    ChannelJob job = job_of(song, 1);
    job.start = 20;
    job.stop = job.start + length;
    std::vector<std::size_t> counts;
    std::size_t stored = 0;
    job.progress = [&](std::size_t done, std::size_t total) {
      counts.push_back(done);
      EXPECT_EQ(total, 18U);
    };
    render_channel_intervals({job}, roomy(4), {},
                             [&](std::size_t, std::size_t first, RowsView<const double> stems) {
                               EXPECT_EQ(first, job.start + stored);
                               stored += stems.columns();
                             });
    EXPECT_EQ(stored, length);
    EXPECT_EQ(counts.size(), 19 * intervals + (intervals > 1 ? 1 : 0)) << length;
    EXPECT_TRUE(std::ranges::is_sorted(counts));
    EXPECT_EQ(counts.front() + counts.back(), 18U);
  }
}

TEST(Rendering, RefusesWhatDoesNotFit) {
  const char* const kInvalid = "invalid candidate-14 allocation inputs or interval";
  const char* const kUnfit = "candidate-14 models must match the finite residual";
  const std::pair<const char*, std::function<void(Song&, ChannelJob&)>> kCases[] = {
      {kInvalid, [](auto&, auto& job) { job.start = job.stop; }},
      {kInvalid, [](auto&, auto& job) { ++job.stop; }},
      {kInvalid, [](auto&, auto& job) { job.taps.clear(); }},
      {"non-finite candidate-14 residual",
       [](auto& s, auto&) { s.mix.row(0)[5] = s.gain.row(0)[0] = std::nan(""); }},
      {kUnfit, [](auto& s, auto&) { s.taps[2].audio.row(0)[2047] = HUGE_VALF; }},
      {kUnfit, [](auto& s, auto&) { s.gain.row(0)[2047] = HUGE_VAL; }},
      {kUnfit, [](auto&, auto& job) { job.taps[1] = job.taps[1].first(2047); }},
      {kUnfit, [](auto&, auto& job) { job.gain = job.gain.first(2047); }},
      {"non-finite candidate-14 allocation",  // too loud for single precision
       [](auto& s, auto&) { s.taps[2].audio.row(0)[2047] = 1e38F, s.gain.row(0)[2047] = 50.0; }},
      {"Candidate 14 needs at least 2048 audio frames",
       [](auto& s, auto& job) { job = job_of(s = test_song(2047, 44100), 44100); }}};
  for (const auto& [message, spoil] : kCases) {
    Song song = test_song(2048, 44100);
    ChannelJob job = job_of(song, 44100);
    spoil(song, job);
    EXPECT_EQ(failure_of<std::exception>(
                  [&] { render_channel_intervals({job}, roomy(2), {}, [](auto...) {}); }),
              message);
  }
}

TEST(Rendering, FailsWhereItsStemsMissTheSum) {
  for (const double loud : {1.0, 10.0}) {
    const std::vector<double> mix(6, 1.5 * loud);
    auto stems = AudioArray::zeros(2, 6);
    std::ranges::fill(stems.row(1), 1.5 * loud);
    const auto failure = [&](double last) {
      stems.row(0)[5] = last;
      Conservation conservation;
      conservation.add(stems.view(), mix);
      return failure_of<FloatingPointError>([&] { conservation.require(); });
    };
    EXPECT_EQ(failure(2.9e-6 * loud), "");
    EXPECT_EQ(failure(-3.1e-6 * loud),
              loud > 1.0 ? "candidate-14 allocation failed conservation (3.1e-05)"
                         : "candidate-14 allocation failed conservation (3.1e-06)");
  }
}

TEST(Rendering, TheInverseTransformGivesTheSignalsBackToTheirFirstAndLastSample) {
  const SpectralTransform transform;
  for (const std::size_t samples : {2048U, 2049U, 2303U, 2304U, 2305U, 7777U}) {
    const SignalExtent extent{samples};
    HopRing<double> signal(1);
    const std::vector<double> noise = testing::noise(samples, 3);
    for (std::size_t i = 0; i < samples; ++i) signal.hop(0, i / C14_HOP)[i % C14_HOP] = noise[i];
    FrameBuffers buffers;
    PairBuffers pair;
    PairOverlap overlap(transform, extent, 1);
    std::size_t returned = 0;
    for (std::size_t frame = 0; frame < extent.frames() + PairOverlap::frames_after(); ++frame) {
      if (frame < extent.frames()) {
        transform_frame(transform, signal, frame, extent, buffers);
        // The signal as the one of a pair, and twice as loud as the other.
        for (std::size_t k = 0; k < C14_FFT_SIZE; ++k) {
          const bool mirrored = k >= C14_BINS;
          const auto value = buffers.spectrum.data()[mirrored ? C14_FFT_SIZE - k : k];
          const std::complex<double> bin = mirrored ? std::conj(value) : value;
          pair.spectrum.data()[k] = std::complex<float>(bin * std::complex<double>(1.0, 2.0));
        }
        overlap.add(0, frame, pair);
      }
      overlap.finish(
          0, frame,
          [&](std::size_t hop, const double* weight, const double* first, const double* second) {
            for (std::size_t n = 0; n < extent.hop_samples(hop); ++n, ++returned) {
              ASSERT_NEAR(first[n] * weight[n], noise[hop * C14_HOP + n], 2e-6) << samples;
              ASSERT_NEAR(second[n] * weight[n], 2.0 * noise[hop * C14_HOP + n], 4e-6) << samples;
            }
          });
    }
    EXPECT_EQ(returned, samples);
  }
}

TEST(Rendering, AFailureOrAStopEndsIt) {
  const Song song = test_song(2100, 1);
  for (const std::size_t moment : {0U, 3U, 17U}) {
    ChannelJob job = job_of(song, 1);
    std::atomic<bool> stopped{true};
    const auto render = [&](const StopToken& stop) {
      render_channel_intervals({job, job}, roomy(4), stop, [](auto...) {});
    };
    job.progress = [&](std::size_t done, std::size_t) {
      if (done >= moment) throw RuntimeError("stop here");
    };
    EXPECT_EQ(failure_of<RuntimeError>([&] { render({}); }), "stop here");
    EXPECT_THROW(render(StopToken(stopped)), Cancelled);
  }
}

}  // namespace
}  // namespace verdel::internal
