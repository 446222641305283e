#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <filesystem>
#include <functional>
#include <mutex>
#include <numbers>

#include "allocation/channels.hpp"
#include "allocation/interval_rendering.hpp"
#include "signal/instruction_sets.hpp"
#include "support/errors.hpp"
#include "support/files.hpp"
#include "support/machines.hpp"
#include "support/noise.hpp"
#include "support/temporary_folder.hpp"

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

// One render of the whole signal on scratch of its own.
AudioArray render_full(const ChannelJob& job) {
  RenderScratch scratch(system_machine(), job.taps.size(), job.mix.size(), 1);
  auto room = AudioArray::uninitialised(job.taps.size() + 1, job.mix.size());
  auto rendered = AudioArray::uninitialised(job.taps.size(), job.stop);
  _render_transient_release_tail_channel_full(job, system_machine(), scratch, room.view(),
                                              rendered.view());
  return rendered;
}

Machine roomy(std::size_t processors) {
  return testing::machine_with(processors, std::uint64_t{64} << 30U, std::uint64_t{64} << 30U);
}

// In four intervals and in excerpts, of the whole song and of the part that a render looks at, on
// all instruction sets.
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

TEST(Rendering, InnerWorkersAndUsedScratchChangeNoBit) {
  const Song song = test_song(30000, 44100, 7);
  ChannelJob job = job_of(song, 44100);
  const auto expected = render_full(job);
  for (const std::size_t workers : {2U, 3U, 6U}) {
    job.workers = workers;
    RenderScratch scratch(roomy(8), 7, 34000, 4);
    for (int run = 0; run < 2; ++run) {
      auto rendered = AudioArray::zeros(7, 30000), room = AudioArray::zeros(8, 30000);
      _render_transient_release_tail_channel_full(job, roomy(8), scratch, room.view(),
                                                  rendered.view());
      EXPECT_TRUE(std::ranges::equal(rendered.flat(), expected.flat())) << workers;
    }
  }
}

// At one sample a second: three of a minute, four of a second more, and bounds that a step of no
// whole number of samples, multiplied, would miss.
TEST(Rendering, CutsFromAMinuteOnAndCountsItsSteps) {
  const Song song = test_song(2100, 1);
  for (const auto& [length, intervals] :
       {std::pair<std::size_t, std::size_t>{59, 1}, {60, 3}, {61, 4}, {436, 22}}) {
    for (const std::size_t processors : {1U, 4U}) {
      ChannelJob job = job_of(song, 1);
      job.start = 20;
      job.stop = job.start + length;
      std::vector<std::size_t> counts, firsts, expected;
      for (std::size_t i = 0; i < intervals; ++i) expected.push_back(20 + i * length / intervals);
      job.progress = [&](std::size_t done, std::size_t total) {
        counts.push_back(done);
        EXPECT_EQ(total, 18U);
      };
      std::mutex storing;
      render_channel_intervals({job}, roomy(processors), {},
                               [&](std::size_t, std::size_t first, auto) {
                                 const std::lock_guard lock(storing);
                                 firsts.push_back(first);
                               });
      std::ranges::sort(firsts);
      EXPECT_EQ(firsts, expected);
      EXPECT_EQ(counts.size(), 19 * intervals + (intervals > 1 ? 1 : 0)) << length;
      EXPECT_TRUE(std::ranges::is_sorted(counts));
      EXPECT_EQ(counts.front() + counts.back(), 18U);
    }
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
    const std::vector<double> mix(9, 1.5 * loud);
    ChannelJob job;
    job.mix = mix;
    job.start = 3;
    job.stop = 9;
    auto stems = AudioArray::zeros(2, 6);
    std::ranges::fill(stems.row(1), 1.5 * loud);
    const auto failure = [&](double last) {
      stems.row(0)[5] = last;
      return failure_of<FloatingPointError>([&] { check_rendered(job, stems.view()); });
    };
    EXPECT_EQ(failure(2.9e-6 * loud), "");
    EXPECT_EQ(failure(-3.1e-6 * loud),
              loud > 1.0 ? "candidate-14 allocation failed conservation (3.1e-05)"
                         : "candidate-14 allocation failed conservation (3.1e-06)");
  }
}

TEST(Rendering, TheInverseTransformGivesTheSignalBackToItsFirstAndLastSample) {
  const SpectralTransform transform;
  for (const std::size_t samples : {2048U, 2049U, 2303U, 2304U, 2305U, 7777U}) {
    const std::vector<double> signal = testing::noise(samples, 3);
    std::vector<double> returned(samples, 99.0);
    FrameBuffers buffers;
    OverlapAdd overlap(transform, samples);
    const auto store = [&](std::size_t first, std::span<const double> values) {
      std::ranges::copy(values, std::span(returned).subspan(first).begin());
    };
    for (std::size_t frame = 0; frame < (samples + 255) / 256 + 1; ++frame) {
      transform_frame(transform, signal, frame, buffers);
      overlap.add(buffers, store);
    }
    overlap.finish(store);
    for (std::size_t i = 0; i < samples; ++i) ASSERT_NEAR(returned[i], signal[i], 1e-14) << i;
  }
}

TEST(Rendering, AFailureOrAStopEndsItAndLeavesNoDirectoryBehind) {
  const testing::TemporaryFolder folder;
  const Song song = test_song(2100, 1);  // in several intervals
  for (const std::size_t processors : {1U, 4U}) {
    // So little memory that scratch is written back.
    Machine machine = testing::machine_with(processors, std::uint64_t{1} << 20U, 0);
    machine.temporary_folder = [&] { return folder.path(); };
    for (const std::size_t moment : {0U, 3U, 8U, 11U, 17U}) {
      ChannelJob job = job_of(song, 1);
      std::atomic<bool> stopped{false};
      const auto render = [&] {
        render_channel_intervals({job}, machine, StopToken(stopped), [](auto...) {});
      };
      job.progress = [&](std::size_t done, std::size_t) {
        for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
          EXPECT_TRUE(entry.path().filename().string().starts_with("verdel-c14-"));
          EXPECT_EQ(entry.status().permissions(), std::filesystem::perms::owner_all);
          EXPECT_TRUE(std::filesystem::is_empty(entry)) << "its files have no names";
        }
        EXPECT_FALSE(std::filesystem::is_empty(folder.path()));
        if (done >= moment) throw RuntimeError("stop here");
      };
      EXPECT_EQ(failure_of<RuntimeError>(render), "stop here");
      job.progress = [&](std::size_t done, std::size_t) { stopped = stopped || done >= moment; };
      EXPECT_THROW(render(), Cancelled);
      EXPECT_TRUE(std::filesystem::is_empty(folder.path())) << moment;
    }
  }
}

}  // namespace
}  // namespace verdel::internal
